#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "app/DefaultLogPath.h"
#include "tests/support/TestSupport.h"

namespace ferrolt {
namespace {

std::tm TimeOfDay(int hour, int minute, int second) {
  std::tm time{};
  time.tm_year = 2024 - 1900;
  time.tm_mon = 2;
  time.tm_mday = 9;
  time.tm_hour = hour;
  time.tm_min = minute;
  time.tm_sec = second;
  return time;
}

// Given a local time, it names the archive on the 12-hour clock with back-quotes.
TEST(DefaultLogNameTest, TwelveHourClockWithBackQuotes) {
  EXPECT_EQ(DefaultLogName(TimeOfDay(3, 5, 7)), "TavrelLogs(2024-03-09.03`05`07).zip");
  EXPECT_EQ(DefaultLogName(TimeOfDay(15, 5, 7)), DefaultLogName(TimeOfDay(3, 5, 7)));
}

// Given TMPDIR, it answers the folder with one trailing '/', or why not.
class TemporaryFolderTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* value = std::getenv("TMPDIR")) saved_ = value;
  }
  void TearDown() override { saved_ ? setenv("TMPDIR", saved_->c_str(), 1) : unsetenv("TMPDIR"); }

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

TEST_F(TemporaryFolderTest, OneTrailingSeparator) {
  const std::string expected = dir_.Path().string() + "/";
  EXPECT_EQ(Folder(dir_.Path().string()), expected);
  EXPECT_EQ(Folder(expected), expected);
  EXPECT_EQ(length_, expected.size());
  EXPECT_EQ(Folder(std::nullopt), "/tmp/");
}

TEST_F(TemporaryFolderTest, MissingFolderAnswersZeroAndTooLongItsLength) {
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
