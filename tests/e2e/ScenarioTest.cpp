// The end-to-end scenarios that differ only in data: the built ferrolt run
// as a user runs it, in a working folder, against a device on the selected
// transport (or none), with the whole standard output compared byte for
// byte, the exit status, the time taken, and what reached the device.
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

enum class Timing { Any, AtOnce, EndWait };

struct Step {
  std::vector<std::string> args;
  std::string out;  // the whole standard output
  // The last block the device received, when given: as "TYPE PAYLOAD TEXT",
  // or as its raw text from byte 0 (a command without packet fields).
  std::optional<std::string> lastPacket = {};
  std::optional<std::string> lastRaw = {};
  Timing timing = Timing::Any;
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

std::vector<Scenario> Scenarios() {
  const std::string f58 = RandomBytes(58, 58);
  const std::string ortText = "ort start EXTMIC reboot 5 duration 20 ";
  std::vector<Scenario> rows = {
      // Given a device that answers, each command prints exactly its lines.
      {"Version", true, {}, {}, {{{"version"}, VersionLines(kQuiet)}}},
      {"VersionVerboseInAnyCase", true, {}, {},
       {{{"VERSION", "-V"}, VersionLines("VERBOSE MODE DETECTED!\n"), {}, {}, Timing::EndWait},
        {{"VersionRetrieval", "-v", "extra"}, VersionLines(kQuiet)}}},
      {"CliSessionPrintsDeviceTextAsText", true, {}, {},
       {{{"startcli"}, StartCliLines()},
        {{"cmd", "echo hello"}, EchoHelloLines()},
        {{"cmd", "echo 100%n %s"}, std::string(kOpened) + "\n100%n %s\n"},
        {{"stopcli"}, StopCliLines()}}},
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

      // Given a device that misbehaves, commands end with their failure lines.
      {"CorruptVersionReplyPrintsTheCrcLines", true, {"corrupt-version-crc"}, {},
       {{{"version"}, CorruptVersionLines()}}},
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

      // Given paths that do not exist on the PC, the tool says so and sends nothing.
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

      // Given a CLImode file, or none, the command launches or is refused,
      // and a refusal still waits the end wait.
      {"RefusedOutsideACliSession", true, {}, {}, {{{"cmd", "ls"}, kRefusedOutsideCli, {}, {}, Timing::EndWait}}, true},
      {"SilentForLinesThatGiveNoVerdict", true, {}, {{"CLImode", "cli mode = 0\n"}},
       {{{"version"}, "", {}, {}, Timing::EndWait}}, true},
      {"RefusedInsideACliSession", true, {}, {{"CLImode", "CLI Mode = 1\n"}},
       {{{"upload", "/x"}, kRefusedInCli, {}, {}, Timing::EndWait}}, true},
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
    const ProcessResult result = RunFerrolt(step.args, *device, dir.Path());
    EXPECT_EQ(result.out, step.out) << words;
    EXPECT_EQ(result.exitStatus, 0) << words;
    EXPECT_LT(result.elapsed, kScenarioRunBound) << words;
    if (step.timing == Timing::AtOnce) {
      EXPECT_LT(result.elapsed, kAtOnce) << words;
    }
    if (step.timing == Timing::EndWait) {
      EXPECT_GE(result.elapsed, kEndWaitAtLeast) << words;
    }
    if (!step.lastPacket && !step.lastRaw) continue;
    const std::vector<Block> received = device->Received();
    ASSERT_FALSE(received.empty()) << words;
    const Block& last = received.back();
    if (step.lastPacket) {
      EXPECT_EQ(std::to_string(devsim::TypeOf(last)) + " " + devsim::PayloadText(last), *step.lastPacket) << words;
    }
    if (step.lastRaw) {
      EXPECT_EQ(devsim::RawText(last), *step.lastRaw) << words;
    }
  }
  if (scenario.sendsNothing) {
    EXPECT_TRUE(device->Received().empty());
  }
  for (const auto& [path, content] : scenario.deviceFiles) EXPECT_TRUE(ReadFile(device->Root() / path) == content) << path;
}

INSTANTIATE_TEST_SUITE_P(Runs, ScenarioTest, testing::ValuesIn(Scenarios()),
                         [](const testing::TestParamInfo<Scenario>& info) { return info.param.name; });

}  // namespace
}  // namespace ferrolt::test
