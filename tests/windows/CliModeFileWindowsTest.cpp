#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "app/CliModeFile.h"
#include "tests/windows/WindowsProcess.h"

namespace ferrolt {
namespace {

using V = CliModeVerdict;

// Given the CLImode file in text mode, a line is stored with CRLF and read
// back with one line end; only a carriage return beyond that spoils it.
class CliModeFileWindowsTest : public testing::Test {
 protected:
  std::string Bytes() {
    std::ifstream in(file_, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  void WriteBytes(const std::string& bytes) { std::ofstream(file_, std::ios::binary) << bytes; }
  std::vector<V> Verdicts() {
    CliModeReader reader;
    EXPECT_TRUE(reader.Open(file_));
    std::vector<V> verdicts;
    for (V verdict; reader.NextVerdict(verdict);) verdicts.push_back(verdict);
    return verdicts;
  }

  test::WindowsTempDir dir_;
  std::filesystem::path file_ = dir_.Path() / kCliModeFileName;
};

TEST_F(CliModeFileWindowsTest, WrittenWithCrLfAndReadBackAsTheLine) {
  WriteCliMode(true, file_);
  EXPECT_EQ(Bytes(), "CLI Mode = 1\r\n");
  EXPECT_EQ(Verdicts(), std::vector<V>{V::InCliMode});
  WriteCliMode(false, file_);
  EXPECT_EQ(Bytes(), "CLI Mode = 0\r\n");
  EXPECT_EQ(Verdicts(), std::vector<V>{V::NotInCliMode});
}

TEST_F(CliModeFileWindowsTest, PlainLineEndsAndNoneAtAllStillCountAStrayReturnDoesNot) {
  WriteBytes("CLI Mode = 1\nCLI Mode = 0");
  EXPECT_EQ(Verdicts(), (std::vector<V>{V::InCliMode, V::NotInCliMode}));
  WriteBytes("CLI Mode = 1\r\r\nCLI Mode = 0 \r\n");
  EXPECT_EQ(Verdicts(), (std::vector<V>{V::None, V::None}));
}

}  // namespace
}  // namespace ferrolt
