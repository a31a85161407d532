#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/CommandDispatch.h"

namespace ferrolt {
namespace {

using K = CommandKind;

CommandKind KindOf(const std::vector<std::string>& args) { return DispatchCommand(args).kind; }

// Given a command line, it picks the command by argument count first, then by word.
TEST(CommandDispatchTest, WordsAndAliasesIgnoreCaseOnlyAtTheirCount) {
  EXPECT_EQ(KindOf({"VersionRetrieval"}), K::Version);
  EXPECT_EQ(KindOf({"PROGCAP"}), K::ProgramCaptouch);
  EXPECT_EQ(KindOf({"CliCmd", "ls"}), K::CliCommand);
  EXPECT_EQ(KindOf({"FileUpload", "a"}), K::Upload);
  EXPECT_EQ(KindOf({"FILEDOWNLOAD", "a", "b"}), K::Download);
  EXPECT_EQ(KindOf({"DownloadLogs"}), K::DefaultLogs);
  EXPECT_EQ(KindOf({"versionx"}), K::Unrecognised);
  EXPECT_EQ(KindOf({"upload", "a", "b"}), K::Unrecognised);
  EXPECT_EQ(KindOf({"startcli", "x"}), K::Unrecognised);
}

TEST(CommandDispatchTest, VerboseOnlyAsTheLastReadArgument) {
  EXPECT_TRUE(DispatchCommand({"upgrade", "/b.img", "-v"}).verbose);
  EXPECT_FALSE(DispatchCommand({"upgrade", "/b.img", "-v", "x"}).verbose);
  const Command upgrade = DispatchCommand({"upgrade", "-v"});
  EXPECT_FALSE(upgrade.verbose);
  EXPECT_EQ(upgrade.first, "-v");
  const Command logs = DispatchCommand({"logs", "-v"});
  EXPECT_EQ(logs.kind, K::Logs);
  EXPECT_EQ(logs.first, "-v");
  EXPECT_TRUE(DispatchCommand({"logs", "/l.zip", "-v"}).verbose);
}

TEST(CommandDispatchTest, StartOrtChecksOnlyItsSecondArgumentAndItsLength) {
  EXPECT_EQ(DispatchCommand({"startort"}).first, "ort start");
  EXPECT_EQ(KindOf({"startort", "Reboot"}), K::StartOrt);
  EXPECT_EQ(KindOf({"startort", "duration", "20"}), K::WrongOrt);
  // "ort start reboot " is 17 characters: 62 more make 79, one more is too many.
  EXPECT_EQ(KindOf({"startort", "reboot", std::string(61, 'a')}), K::StartOrt);
  EXPECT_EQ(KindOf({"startort", "reboot", std::string(62, 'a')}), K::OrtTooLong);
}

}  // namespace
}  // namespace ferrolt
