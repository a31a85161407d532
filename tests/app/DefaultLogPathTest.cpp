#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "app/DefaultLogPath.h"
#include "tests/support/TestSupport.h"

namespace ferrolt {
namespace {

// Given a local time, it names the archive on the 12-hour clock with back-quotes.
TEST(DefaultLogNameTest, TwelveHourClockWithBackQuotes) {
  std::tm afternoon{};
  ASSERT_NE(strptime("2024-03-09 15:05:07", "%Y-%m-%d %H:%M:%S", &afternoon), nullptr);
  EXPECT_EQ(DefaultLogName(afternoon), "TavrelLogs(2024-03-09.03`05`07).zip");
}

// Given TMPDIR, it answers the folder with one trailing '/', or why not.
class TemporaryFolderTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* value = std::getenv("TMPDIR")) saved_ = value;
  }
  void TearDown() override { saved_ ? setenv("TMPDIR", saved_->c_str(), 1) : unsetenv("TMPDIR"); }

  // The folder answered; length_ is the length returned.
  std::string Folder(const std::optional<std::string>& tmpdir) {
    tmpdir ? setenv("TMPDIR", tmpdir->c_str(), 1) : unsetenv("TMPDIR");
    char buffer[kTempFolderBufferSize] = {};
    length_ = TemporaryFolder(buffer, sizeof buffer);
    return buffer;
  }

  std::optional<std::string> saved_;
  test::TempDir dir_;
  size_t length_ = 0;
};

TEST_F(TemporaryFolderTest, OneTrailingSeparatorOrZeroForNoFolderOrTheLengthNeeded) {
  const std::string expected = dir_.Path().string() + "/";
  EXPECT_EQ(Folder(expected), expected);
  EXPECT_EQ(length_, expected.size());
  EXPECT_EQ(Folder(std::nullopt), "/tmp/");

  EXPECT_EQ(Folder((dir_.Path() / "absent").string()), "");
  EXPECT_EQ(length_, 0u);
  std::filesystem::path deep = dir_.Path();
  while (deep.string().size() < kTempFolderBufferSize) deep /= std::string(40, 'd');
  std::filesystem::create_directories(deep);
  EXPECT_EQ(Folder(deep.string()), "");
  EXPECT_EQ(length_, deep.string().size() + 1);
}

}  // namespace
}  // namespace ferrolt
