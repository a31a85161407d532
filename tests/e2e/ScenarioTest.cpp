// The end-to-end scenarios that differ only in data: the built ferrolt run
// as a user runs it, in a working folder, against a device on the selected
// transport (or none), with the whole standard output compared byte for
// byte, the exit status, the time taken, and what reached the device; and
// the default log path, whose name no row can hold.
#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "devsim/DevicePackets.h"
#include "tests/app/ExpectedHelpText.h"
#include "tests/e2e/FrontEndRuns.h"
#include "tests/support/ExpectedLines.h"

namespace ferrolt::test {
namespace {

using namespace lines;

// Every scenario's device holds this version.
constexpr const char* kVersion = "1.2.3";
// No run of a scenario takes longer, stalls and retries included.
constexpr milliseconds kScenarioRunBound{30000};

constexpr const char* kVersionWriteFailed = "LogMessageCallBack:\tFailed in writing 'Version Retrieval' to device.\n";
constexpr int kProgCapAttempts = 5;
constexpr const char* kUpgradeEnded = "LogMessageCallBack:\tUpgrade complete, ending update\n";

enum class Timing { Any, AtOnce, EndWait };

struct Step {
  std::vector<std::string> args;
  std::string out;  // the whole standard output
  // The one block the step sent the device, when given: as "TYPE PAYLOAD
  // TEXT", or as its raw text from byte 0 (a command without packet fields).
  std::optional<std::string> packet = {};
  std::optional<std::string> raw = {};
  Timing timing = Timing::Any;
  // A line of the response reader's thread: it may land anywhere up to
  // where out has it.
  std::string floating = {};
};

struct Scenario {
  std::string name;
  bool device = true;              // false: nothing where the tool looks
  std::vector<std::string> faults;  // ferrolt-devsim's --fault values
  // Files put in the working folder first (a CLImode file, a file to upload).
  std::vector<std::pair<std::string, std::string>> files;
  std::vector<Step> steps;
  bool sendsNothing = false;
  // Files in the device's folder afterwards.
  std::vector<std::pair<std::string, std::string>> deviceFiles = {};
};

std::string HexOf(const devsim::Block& block) { return devsim::HexOf(block.data(), block.size()); }
std::string ReadData(const devsim::Block& reply) { return "VersionInfoReadyCallBack:\tRead data :" + HexOf(reply) + "\n"; }
std::string VersionLines(const char* mode) { return lines::VersionLines(mode, kVersion); }

// The version reply with its CRC flipped, and the lines that report it.
std::string CorruptVersionLines() {
  devsim::Block reply = devsim::MakeTextPacket(devsim::kTypeVersion, kVersion);
  const unsigned crc = reply[devsim::kCrcOffset];
  devsim::CorruptCrc(reply);
  char crcLines[96];
  std::snprintf(crcLines, sizeof crcLines, "CRC failed.\nCRC you gave me - %x\nCRC I calculated - %x\n",
                reply[devsim::kCrcOffset], crc);
  return std::string(kOpened) + kQuiet + kSpi + ReadData(reply) + crcLines + Progress(100);
}

std::string ProgCapGivesUp() {
  std::string out = "Programming Captouch...\n" + std::string(kOpened) + Progress(5) + kSpi;
  for (int attempt = 1; attempt < kProgCapAttempts; ++attempt)
    out += Log("Failed to send reboot message to device.") + kOpened;
  return out + Log("Failed to send reboot message to device.") +
         Log("Error: Giving up after 5 failed attempts to send the reboot message.");
}

// The version lines with the busy line of a second launch before the reply.
std::string VersionAfterTheBusyLine() {
  std::string out = VersionLines(kQuiet);
  return out.insert(out.find("VersionInfoReadyCallBack:"), kBusyLine);
}

// The whole exchange of a two-packet upgrade.
std::string UpgradeOf58Bytes() {
  return std::string(kOpened) + Log("I found specified file - b58.bin") + kSpi + Progress(10) +
         Log("Getting File Size...Seeking to end of file.") + Log("Success.") + Log("Seeking to beginning of file.") +
         Log("Success.") + Log("Successful in writing 'Starting Upgrade' to device.") +
         Log("Downloading Upgrade Bundle now.") + Log("Progress: 0%") + Log("Progress: 50%") + Log("Progress: 100%") +
         Log("Download of upgrade bundle to device has completed.") +
         "\n-------------------------------------------\nFile Size = 58\nPacket Count = 2\n" + kUpgradeEnded +
         "I am done with the reader thread.\n" + Log("Please wait until reboot of device is done.");
}

std::vector<Scenario> Scenarios() {
  const std::string f58 = RandomBytes(58, 58);
  const std::string b58 = RandomBytes(58, 21);
  const std::string ortText = "ort start EXTMIC reboot 5 duration 20 ";
  std::vector<Scenario> rows = {
      // Given a device that answers, each command prints exactly its lines.
      {"Version", true, {}, {}, {{{"version"}, VersionLines(kQuiet)}}},
      {"VersionVerboseInAnyCase", true, {}, {},
       {{{"VERSION", "-V"}, VersionLines("VERBOSE MODE DETECTED!\n"), {}, {}, Timing::EndWait},
        {{"VersionRetrieval", "-v", "extra"}, VersionLines(kQuiet)}}},
      {"CliSessionPrintsDeviceTextAsText", true, {}, {},
       {{{"startcli"}, std::string(kOpened) + kSpi + Log("STARTING CLI MODE...\n"), "4 CLI On"},
        {{"cmd", "echo hello"}, std::string(kOpened) + "\nhello\n", "4 echo hello"},
        // A command of 60 characters goes out as its first 57.
        {{"cmd", "echo " + std::string(55, 'z')}, std::string(kOpened) + "\n" + std::string(52, 'z') + "\n",
         "4 echo " + std::string(52, 'z')},
        {{"stopcli"}, std::string(kOpened) + Log("Ending CLI Mode now."), "4 CLI Off"},
        // The working folder's CLImode file now says the session is over.
        {{"cmd", "ls"}, kRefusedOutsideCli, {}, {}, Timing::EndWait}}},
      {"OrtStartKeepsTheWordsAndEnd", true, {}, {},
       {{{"startort", "EXTMIC", "reboot", "5", "duration", "20"},
         "ORTstring = " + ortText + kOpened + Progress(5) + kSpi + Log("Sent ORT message to device successfully.") +
             Progress(100),
         "8 " + ortText},
        {{"endort"},
         std::string(kQuiet) + kOpened + Progress(5) + kSpi + Log("Sent 'ort end' to device successfully.") +
             Progress(100),
         "8 ort end"}}},
      {"ProgCapSendsTheRebootRequest", true, {}, {},
       {{{"progCap"},
         "Programming Captouch...\n" + std::string(kOpened) + Progress(5) + kSpi +
             Log("Sent reboot message to device successfully.") + Progress(100),
         {}, "\rreboot\r" + std::string(55, ' ')}}},
      {"UploadOfFiftyEightBytes", true, {}, {{"f58.bin", f58}}, {{{"upload", "f58.bin"}, UploadOf58Bytes(f58)}},
       false, {{"tmp/f58.bin", f58}}},
      {"UpgradeOfFiftyEightBytes", true, {}, {{"b58.bin", b58}},
       {{{"upgrade", "b58.bin"}, UpgradeOf58Bytes(), {}, {}, Timing::Any, kUpgradeEnded}}, false,
       {{"upgrade/bundle.img", b58}}},

      // Given a device that misbehaves, commands end with their failure lines.
      {"CorruptVersionReplyPrintsTheCrcLines", true, {"corrupt-version-crc"}, {},
       {{{"version"}, CorruptVersionLines()}}},
      {"VersionReplyOfAnotherTypeGivesOnlyItsHexLine", true, {"version-reply-type=4"}, {},
       {{{"version", "-v"}, std::string(kOpened) + "VERBOSE MODE DETECTED!\n" + kSpi +
                                ReadData(devsim::MakeTextPacket(devsim::kTypeCli, kVersion)) + Progress(100)}}},
      {"StalledWritesEndEachCommand", true, {"stall-writes"}, {},
       {{{"version"}, std::string(kOpened) + kQuiet + kSpi + kVersionWriteFailed},
        {{"startcli"}, std::string(kOpened) + kSpi + kOpened},
        {{"stopcli"}, std::string(kOpened) + kOpened},
        {{"progCap"}, ProgCapGivesUp()}}},

      // Given no device, each command reports the failed open.
      {"AbsentDevice", false, {}, {},
       {{{"version"}, std::string(kNotFound) + kQuiet + kSpi + kVersionWriteFailed},
        {{"progCap"}, "Programming Captouch...\n" + std::string(kNotFound) + kConnectFailure},
        {{"endort"}, std::string(kQuiet) + kNotFound + kConnectFailure},
        {{"startort"}, "ORTstring = ort start" + std::string(kNotFound) + kConnectFailure},
        {{"startcli"}, std::string(kNotFound) + kConnectFailure + kFailedOpen},
        {{"cmd", "ls"}, std::string(kNotFound) + kConnectFailure},
        {{"stopcli"}, std::string(kNotFound) + kConnectFailure + kFailedOpen}}},

      // Given paths that do not exist on the PC, the tool says so and sends
      // nothing (a folder given as the file: HostileDeviceTest).
      {"MissingLocalPaths", true, {}, {},
       {{{"upgrade", "missing.bin"}, std::string(kOpened) + Log("Error: Can not find specified file - missing.bin")},
        {{"upload", "nofile.bin"},
         "Local Path  : nofile.bin\n" + std::string(kOpened) + Progress(5) + "File to send: nofile.bin\n" +
             Log("Error: Can not find specified file - nofile.bin")},
        {{"download", "/tmp/x", "nofolder/x"},
         "Device Path: /tmp/x\nSave Path  : nofolder/x\n" + std::string(kOpened) + Progress(5) +
             Log("Error: Can not find specified file destination path - nofolder/x")},
        {{"logs", "nofolder/logs.zip"},
         std::string(kOpened) + Progress(5) +
             Log("Error: Can not find specified log destination path - nofolder/logs.zip")}},
       true},

      // Given a CLImode file with two verdict lines, each launches the
      // command: the second meets the first still running, and one request
      // reaches the device.
      {"EveryVerdictLineLaunchesTheSecondMeetsTheBusyGuard", true, {"delay-replies=500"},
       {{"CLImode", "CLI Mode = 0\nCLI Mode = 0"}},
       {{{"version"}, VersionAfterTheBusyLine(), "2 Version Retrieval", {}, Timing::Any, kBusyLine}}},
  };

  // Given command lines that launch nothing, it answers and ends at once.
  Scenario immediate{"ImmediateAnswers", false, {}, {}, {}};
  for (const char* word : {"-h", "-H"}) immediate.steps.push_back({{word}, ExpectedHelp(), {}, {}, Timing::AtOnce});
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"bogus"}, {"upgrade"}, {"-h", "x"}, {"cmd", "a", "b"}, {"endort", "-v"}})
    immediate.steps.push_back({args, kUnrecognised, {}, {}, Timing::AtOnce});
  immediate.steps.push_back({{"StartOrt", "duration", "20"}, "Wrong ORT command!\n", {}, {}, Timing::AtOnce});
  rows.push_back(immediate);
  return rows;
}

void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

class ScenarioTest : public testing::TestWithParam<Scenario> {};

TEST_P(ScenarioTest, PrintsExactlyItsLines) {
  const Scenario& scenario = GetParam();
  TempDir dir;
  std::vector<std::string> devsimArgs = {"--version", kVersion};
  for (const std::string& fault : scenario.faults) devsimArgs.insert(devsimArgs.end(), {"--fault", fault});
  const auto device = scenario.device ? StartDevice(devsimArgs) : StartNoDevice();
  ASSERT_TRUE(device->Running());
  for (const auto& [name, content] : scenario.files) WriteFile(dir / name, content);

  for (const Step& step : scenario.steps) {
    const std::string words = testing::PrintToString(step.args);
    const size_t sentBefore = device->Received().size();
    const ProcessResult result = RunFerrolt(step.args, *device, dir.Path());
    std::string out = result.out;
    std::string expected = step.out;
    if (!step.floating.empty()) {
      const size_t at = out.find(step.floating);
      ASSERT_NE(at, std::string::npos) << words << out;
      EXPECT_LE(at, expected.find(step.floating)) << words;
      out.erase(at, step.floating.size());
      expected.erase(expected.find(step.floating), step.floating.size());
    }
    EXPECT_EQ(out, expected) << words;
    EXPECT_EQ(result.exitStatus, 0) << words;
    EXPECT_LT(result.elapsed, kScenarioRunBound) << words;
    if (step.timing == Timing::AtOnce) {
      EXPECT_LT(result.elapsed, kAtOnce) << words;
    }
    if (step.timing == Timing::EndWait) {
      EXPECT_GE(result.elapsed, kEndWaitAtLeast) << words;
    }
    if (!step.packet && !step.raw) continue;
    const std::vector<Block> received = device->Received();
    ASSERT_EQ(received.size(), sentBefore + 1) << words;
    const Block& sent = received.back();
    if (step.packet) {
      EXPECT_EQ(std::to_string(devsim::TypeOf(sent)) + " " + devsim::PayloadText(sent), *step.packet) << words;
    }
    if (step.raw) {
      EXPECT_EQ(devsim::RawText(sent), *step.raw) << words;
    }
  }
  if (scenario.sendsNothing) {
    EXPECT_TRUE(device->Received().empty());
  }
  for (const auto& [path, content] : scenario.deviceFiles) EXPECT_TRUE(ReadFile(device->Root() / path) == content) << path;
}

INSTANTIATE_TEST_SUITE_P(Runs, ScenarioTest, testing::ValuesIn(Scenarios()),
                         [](const testing::TestParamInfo<Scenario>& info) { return info.param.name; });

// Given a device and no log path, the archive is named, by the time of day,
// in the temporary folder.
TEST(DefaultLogPath, TheArchiveIsNamedInTheTemporaryFolder) {
  const auto device = StartDevice();
  ASSERT_TRUE(device->Running());
  TempDir dir;
  const ProcessResult result =
      RunFerrolt({"DownloadLogs"}, *device, dir.Path(), kRunLimit, {{"TMPDIR", dir.Path().string()}});
  const std::string head =
      "Since there was no log path argument was identified, your log files have been downloaded to:\n<" +
      dir.Path().string() + "/TavrelLogs(";
  EXPECT_EQ(result.out.rfind(head, 0), 0u) << result.out;
  EXPECT_NE(result.out.find(").zip>\n"), std::string::npos);
}

}  // namespace
}  // namespace ferrolt::test
