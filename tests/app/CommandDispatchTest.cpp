// The command line as a table: by argument count first, then by word, in
// any letter case; -v only as the last argument the command reads; startort
// checks only its second argument and the string's length. (What the console
// answers at once is the scenario table's ImmediateAnswers.)
#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "app/CommandDispatch.h"

namespace ferrolt {
namespace {

using K = CommandKind;

struct Row {
  std::vector<std::string> args;
  CommandKind kind;
  std::optional<std::string> first = {};
  bool verbose = false;
};

const Row kRows[] = {
    {{"PROGCAP"}, K::ProgramCaptouch},
    {{"CliCmd", "ls"}, K::CliCommand},
    {{"FileUpload", "a"}, K::Upload},
    {{"FILEDOWNLOAD", "a", "b"}, K::Download},
    {{"versionx"}, K::Unrecognised},
    {{"startcli", "x"}, K::Unrecognised},
    {{"upgrade", "/b.img", "-v"}, K::Upgrade, "/b.img", true},
    {{"upgrade", "/b.img", "-v", "x"}, K::Upgrade, "/b.img", false},
    {{"upgrade", "-v"}, K::Upgrade, "-v", false},
    {{"logs", "-v"}, K::Logs, "-v", false},
    {{"logs", "/l.zip", "-v"}, K::Logs, "/l.zip", true},
    {{"startort"}, K::StartOrt, "ort start"},
    {{"startort", "Reboot"}, K::StartOrt},
    // "ort start reboot " is 17 characters: 62 more make 79, one more is too many.
    {{"startort", "reboot", std::string(61, 'a')}, K::StartOrt},
    {{"startort", "reboot", std::string(62, 'a')}, K::OrtTooLong},
};

void PrintTo(const Row& row, std::ostream* out) { *out << testing::PrintToString(row.args); }

class CommandDispatchTable : public testing::TestWithParam<Row> {};

TEST_P(CommandDispatchTable, PicksTheCommand) {
  const Row& row = GetParam();
  const Command command = DispatchCommand(row.args);
  EXPECT_EQ(command.kind, row.kind);
  if (row.first) {
    EXPECT_EQ(command.first, *row.first);
  }
  EXPECT_EQ(command.verbose, row.verbose);
}

INSTANTIATE_TEST_SUITE_P(Rows, CommandDispatchTable, testing::ValuesIn(kRows));

}  // namespace
}  // namespace ferrolt
