#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "app/HelpText.h"
#include "tests/app/ExpectedHelpText.h"

namespace ferrolt {
namespace {

// Given -h, it prints the fixed list byte for byte, every banner line 84 wide.
TEST(HelpTextTest, PrintsTheFixedList) {
  testing::internal::CaptureStdout();
  PrintHelp();
  const std::string help = testing::internal::GetCapturedStdout();
  EXPECT_EQ(help, test::ExpectedHelp());

  std::istringstream lines(help);
  int hyphenLines = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] != '-') continue;
    EXPECT_EQ(line.size(), 84u) << line;
    ++hyphenLines;
  }
  EXPECT_EQ(hyphenLines, 12);
}

}  // namespace
}  // namespace ferrolt
