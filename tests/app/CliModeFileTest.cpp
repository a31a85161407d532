#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/CliModeFile.h"
#include "app/CliModeRule.h"
#include "tests/support/TestSupport.h"

namespace ferrolt {
namespace {

using V = CliModeVerdict;

// Given a CLImode file with some content, it yields one verdict per line.
class CliModeReaderTest : public testing::Test {
 protected:
  std::vector<V> VerdictsOf(const std::string& content) {
    test::WriteFile(file_, content);
    CliModeReader reader;
    EXPECT_TRUE(reader.Open(file_));
    std::vector<V> verdicts;
    for (V verdict; reader.NextVerdict(verdict);) verdicts.push_back(verdict);
    return verdicts;
  }

  test::TempDir dir_;
  std::filesystem::path file_ = dir_ / kCliModeFileName;
};

TEST_F(CliModeReaderTest, OnlyExactWholeLinesGiveVerdicts) {
  EXPECT_EQ(VerdictsOf("CLI Mode = 1\nCLI Mode = 0\n"), (std::vector{V::InCliMode, V::NotInCliMode}));
  EXPECT_EQ(VerdictsOf("CLI Mode = 1\r\n cli mode = 0\nCLI Mode = 0 \n\n"),
            (std::vector{V::None, V::None, V::None, V::None}));
  EXPECT_EQ(VerdictsOf("CLI Mode = 0\nCLI Mode = 1"), (std::vector{V::NotInCliMode, V::InCliMode}));
  EXPECT_TRUE(VerdictsOf("").empty());
}

TEST_F(CliModeReaderTest, WriteCliModeTruncatesAndWritesOneLine) {
  test::WriteFile(file_, "some much longer earlier content\n");
  WriteCliMode(true, file_);
  EXPECT_EQ(test::ReadFile(file_), "CLI Mode = 1\n");
  WriteCliMode(false, file_);
  EXPECT_EQ(test::ReadFile(file_), "CLI Mode = 0\n");
  WriteCliMode(true, dir_ / "no-such-folder" / kCliModeFileName);  // silently nothing
  EXPECT_FALSE(std::filesystem::exists(dir_ / "no-such-folder"));
}

// Given a rule and a CLImode file, it launches or refuses once per matching line.
class CliModeRuleTest : public CliModeReaderTest {
 protected:
  // The console output; launches_ counts the launches.
  std::string Apply(CliModeRule rule, const char* content) {
    test::WriteFile(file_, content);
    CliModeReader reader;
    reader.Open(file_);
    launches_ = 0;
    testing::internal::CaptureStdout();
    ApplyCliModeRule(rule, reader, [this] { ++launches_; });
    return testing::internal::GetCapturedStdout();
  }

  int launches_ = 0;
};

TEST_F(CliModeRuleTest, EachMatchingLineActsAndOthersAreSilent) {
  const std::string refusedInCli = "You are in CLI Mode. Please use stopcli command first.\n";
  const std::string refusedOutside = "You are not in CLI Mode. Please use startcli command first.\n";
  const char* mixed = "CLI Mode = 0\ncli mode = 1\nCLI Mode = 1\nCLI Mode = 0\n";
  EXPECT_EQ(Apply(CliModeRule::Forbidding, mixed), refusedInCli);
  EXPECT_EQ(launches_, 2);
  EXPECT_EQ(Apply(CliModeRule::Requiring, mixed), refusedOutside + refusedOutside);
  EXPECT_EQ(launches_, 1);
  EXPECT_EQ(Apply(CliModeRule::Requiring, ""), "");
  EXPECT_EQ(launches_, 0);
}

}  // namespace
}  // namespace ferrolt
