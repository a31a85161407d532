// The CLI-mode rule as one table: a command line and the working folder's
// CLImode file (or none) give what the console says about the CLI session
// and how many times the command launches.
#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "app/CliModeFile.h"
#include "app/CliModeRule.h"
#include "app/CommandDispatch.h"
#include "tests/support/TestSupport.h"

namespace ferrolt {
namespace {

constexpr const char* kRefusedIn = "You are in CLI Mode. Please use stopcli command first.\n";
constexpr const char* kRefusedOut = "You are not in CLI Mode. Please use startcli command first.\n";
constexpr const char* kMixed = "CLI Mode = 0\ncli mode = 1\nCLI Mode = 1\nCLI Mode = 0\n";
// Only exact whole lines give verdicts: none of these does.
constexpr const char* kNoVerdicts = "CLI Mode = 1\r\n cli mode = 0\nCLI Mode = 0 \n\n";

struct Row {
  std::vector<std::string> args;
  std::optional<std::string> cliMode;  // the CLImode file; none when absent
  std::string console;  // what the CLI-mode rule prints
  int launches;
};

const Row kRows[] = {
    // Each verdict line launches or refuses once; lines without one do nothing.
    // (No file, and two lines "CLI Mode = 0": the end-to-end scenarios and hints.)
    {{"version"}, "CLI Mode = 1\nCLI Mode = 0\n", kRefusedIn, 1},
    {{"version"}, kMixed, kRefusedIn, 2},
    {{"version"}, kNoVerdicts, "", 0},
    {{"version"}, "", "", 0},
    {{"cmd", "ls"}, kMixed, std::string(kRefusedOut) + kRefusedOut, 1},
    {{"cmd", "ls"}, "CLI Mode = 0\nCLI Mode = 1", kRefusedOut, 1},
    {{"cmd", "ls"}, kNoVerdicts, "", 0},
    {{"startcli"}, "CLI Mode = 1\n", "", 1},
    {{"upload", "/x"}, "CLI Mode = 1\n", kRefusedIn, 0},
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << testing::PrintToString(row.args) << " with CLImode " << testing::PrintToString(row.cliMode);
}

class CliModeTable : public testing::TestWithParam<Row> {};

TEST_P(CliModeTable, LaunchesOrRefusesPerVerdictLine) {
  const Row& row = GetParam();
  test::TempDir dir;
  if (row.cliMode) test::WriteFile(dir / kCliModeFileName, *row.cliMode);
  const Command command = DispatchCommand(row.args);

  CliModeReader reader;
  reader.Open(dir / kCliModeFileName);
  int launches = 0;
  testing::internal::CaptureStdout();
  ApplyCliModeRule(command.rule, reader, [&launches] { ++launches; });
  EXPECT_EQ(testing::internal::GetCapturedStdout(), row.console);
  EXPECT_EQ(launches, row.launches);
}

INSTANTIATE_TEST_SUITE_P(Rows, CliModeTable, testing::ValuesIn(kRows));

// Given a file with other content, or no folder for it, WriteCliMode
// leaves exactly its one line, or silently nothing.
TEST(WriteCliModeTest, TruncatesToOneLineOrLeavesNothing) {
  test::TempDir dir;
  test::WriteFile(dir / kCliModeFileName, "some much longer earlier content\n");
  WriteCliMode(false, dir / kCliModeFileName);
  EXPECT_EQ(test::ReadFile(dir / kCliModeFileName), "CLI Mode = 0\n");
  WriteCliMode(true, dir / "no-such-folder" / kCliModeFileName);
  EXPECT_FALSE(std::filesystem::exists(dir / "no-such-folder"));
}

}  // namespace
}  // namespace ferrolt
