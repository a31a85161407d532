#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "app/DefaultLogPath.h"

namespace ferrolt {
namespace {

// Given the user's temporary folder, it answers GetTempPathA's folder with
// its trailing backslash, or the length a buffer would need.
TEST(TemporaryFolderWindowsTest, TheSystemFolderWithItsBackslashOrTheLengthNeeded) {
  char expected[kTempFolderBufferSize] = {};
  ASSERT_GT(GetTempPathA(sizeof expected, expected), 0u);
  char folder[kTempFolderBufferSize] = {};
  const size_t length = TemporaryFolder(folder, sizeof folder);
  EXPECT_EQ(std::string(folder), expected);
  EXPECT_EQ(length, std::string(expected).size());
  EXPECT_EQ(std::string(folder).back(), '\\');

  char small[3] = {};
  EXPECT_EQ(TemporaryFolder(small, sizeof small), length);
  EXPECT_EQ(small[0], '\0');
}

}  // namespace
}  // namespace ferrolt
