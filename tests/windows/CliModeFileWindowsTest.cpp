#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "app/CliModeFile.h"
#include "tests/windows/WindowsProcess.h"

namespace ferrolt {
namespace {

using V = CliModeVerdict;

// Given the CLImode file read in text mode, a CRLF, a plain line end or none
// at all ends a line; only a carriage return beyond that spoils it. (That
// ferrolt.exe writes the lines with CRLF is checked in FrontEndWindowsTest.)
TEST(CliModeFileWindowsTest, CrLfPlainAndMissingLineEndsCountAStrayReturnDoesNot) {
  test::WindowsTempDir dir;
  const std::filesystem::path file = dir.Path() / kCliModeFileName;
  const auto verdictsOf = [&](const std::string& bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
    CliModeReader reader;
    EXPECT_TRUE(reader.Open(file));
    std::vector<V> verdicts;
    for (V verdict; reader.NextVerdict(verdict);) verdicts.push_back(verdict);
    return verdicts;
  };
  EXPECT_EQ(verdictsOf("CLI Mode = 1\r\nCLI Mode = 0\r\n"), (std::vector<V>{V::InCliMode, V::NotInCliMode}));
  EXPECT_EQ(verdictsOf("CLI Mode = 1\nCLI Mode = 0"), (std::vector<V>{V::InCliMode, V::NotInCliMode}));
  EXPECT_EQ(verdictsOf("CLI Mode = 1\r\r\nCLI Mode = 0 \r\n"), (std::vector<V>{V::None, V::None}));
}

}  // namespace
}  // namespace ferrolt
