// The hints on standard error, over whichever transport the suite runs on:
// each says once what the user can do, and standard output stays as the
// console lines prescribe.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/e2e/FrontEndRuns.h"
#include "tests/support/ExpectedLines.h"

namespace ferrolt::test {
namespace {

constexpr const char* kCwdMark = "{cwd}";
constexpr const char* kProgCapStart = "Programming Captouch...\n";
constexpr const char* kNoTemporaryFolder = "Please check and ensure user has a valid temporary folder.";
constexpr const char* kSessionAdvice =
    ". startcli and stopcli write that file in the folder they run in; run every command of a CLI session from the "
    "same folder.\n";

struct HintCase {
  const char* name;
  const char* cliModeFile;  // null: none in the working folder
  std::vector<std::string> args;
  std::vector<std::pair<std::string, std::string>> env;
  const char* out;  // the whole of standard output; null: not checked here
  std::string err;  // the whole of standard error, {cwd} standing for the working folder
};

class Hints : public testing::TestWithParam<HintCase> {};

TEST_P(Hints, SayOnceWhatToDo) {
  const HintCase& row = GetParam();
  TempDir cwd;
  if (row.cliModeFile != nullptr) WriteFile(cwd / "CLImode", row.cliModeFile);
  const auto device = StartDevice();
  ASSERT_TRUE(device->Running());
  const ProcessResult result = RunFerrolt(row.args, *device, cwd.Path(), kRunLimit, row.env);
  std::string err = row.err;
  const size_t mark = err.find(kCwdMark);
  if (mark != std::string::npos) err.replace(mark, std::string(kCwdMark).size(), cwd.Path().string());
  EXPECT_EQ(result.err, err);
  if (row.out != nullptr) {
    EXPECT_EQ(result.out, row.out);
  }
  EXPECT_EQ(result.exitStatus, 0);
}

const std::string kUnreachableOut = std::string(kProgCapStart) + lines::kNotFound + lines::kConnectFailure;
const std::string kTwiceInCliMode = std::string(kRefusedInCli) + kRefusedInCli;

INSTANTIATE_TEST_SUITE_P(
    Runs, Hints,
    testing::Values(
        HintCase{"EmulatorSocketMissing",
                 nullptr,
                 {"progCap"},
                 {{"FERROLT_EMULATOR", "/nonexistent/ferrolt.sock"}},
                 kUnreachableOut.c_str(),
                 "ferrolt: cannot reach the device emulator at FERROLT_EMULATOR=/nonexistent/ferrolt.sock: No such "
                 "file or directory.\n"},
        HintCase{"EmulatorPortClosed",
                 nullptr,
                 {"progCap"},
                 {{"FERROLT_EMULATOR", "tcp:127.0.0.1:1"}},
                 kUnreachableOut.c_str(),
                 "ferrolt: cannot reach the device emulator at FERROLT_EMULATOR=tcp:127.0.0.1:1: Connection "
                 "refused.\n"},
        HintCase{"EmulatorAddressMalformed",
                 nullptr,
                 {"progCap"},
                 {{"FERROLT_EMULATOR", "tcp:localhost"}},
                 kUnreachableOut.c_str(),
                 "ferrolt: cannot reach the device emulator at FERROLT_EMULATOR=tcp:localhost: not of the form "
                 "tcp:HOST:PORT.\n"},
        HintCase{"EmptyDownload",
                 nullptr,
                 {"download", "/tmp/missing", "m"},
                 {},
                 nullptr,
                 "ferrolt: the device sent no bytes of /tmp/missing; the file may not exist on the device.\n"},
        HintCase{"CmdWithoutCliModeFile",
                 nullptr,
                 {"cmd", "ls"},
                 {},
                 kRefusedOutsideCli,
                 std::string("ferrolt: {cwd}/CLImode does not exist") + kSessionAdvice},
        HintCase{"CmdAfterStopcli",
                 "CLI Mode = 0\n",
                 {"cmd", "ls"},
                 {},
                 kRefusedOutsideCli,
                 std::string("ferrolt: {cwd}/CLImode says \"CLI Mode = 0\"") + kSessionAdvice},
        HintCase{"VersionInCliModeTwice",
                 "CLI Mode = 1\nCLI Mode = 1\n",
                 {"version"},
                 {},
                 kTwiceInCliMode.c_str(),
                 std::string("ferrolt: {cwd}/CLImode says \"CLI Mode = 1\"") + kSessionAdvice},
        HintCase{"NoTemporaryFolder",
                 nullptr,
                 {"logs"},
                 {{"TMPDIR", "/nonexistent/tmp"}},
                 kNoTemporaryFolder,
                 "ferrolt: the temporary folder /nonexistent/tmp is not a folder; set TMPDIR to one you can write "
                 "to, or give the logs command a zip path.\n"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace ferrolt::test
