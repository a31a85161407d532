// The short operations and the runner against ferrolt-devsim over the
// emulator link: console bytes, callback lines and the blocks the device got.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "admin/DeviceAdmin.h"
#include "link/DevicePacket.h"
#include "platform/emulator/EmulatorBackend.h"
#include "tests/admin/FakeDeviceFixture.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

constexpr const char* kOpened = "Device speed: 3 (High speed).\n";
constexpr const char* kNotFound = "Device not found.\nGeneral failure. GetLastError returned 80070103.\n";
constexpr const char* kDeviceVersion = "1.2.3";

// A device root holding a known version and, when asked, CLI mode on.
fs::path PrepareRoot(const TempDir& dir, bool cliModeOn) {
  const fs::path root = dir / "root";
  fs::create_directories(root);
  WriteFile(root / "version", kDeviceVersion);
  if (cliModeOn) WriteFile(root / "cli-mode", "on\n");
  return root;
}

bool WaitUntil(const std::function<bool()>& condition, milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(milliseconds(10));
  }
  return true;
}

class EmulatedDeviceTest : public ::testing::Test {
 protected:
  explicit EmulatedDeviceTest(std::vector<std::string> faults = {}, bool cliModeOn = true)
      : server(std::move(faults), PrepareRoot(rootDir, cliModeOn)),
        admin(platform::CreateEmulatorBackend(server.Endpoint())) {}
  void SetUp() override { ASSERT_TRUE(server.Running()); }
  void TearDown() override { EXPECT_TRUE(admin.Shutdown(kShutdownBound)); }

  Block LastReceived() const {
    const auto blocks = server.Received();
    return blocks.empty() ? Block{} : blocks.back();
  }

  StdoutCapture out;
  TempDir rootDir;
  DevsimServer server;
  RecordingLog log;
  RecordingProgress progress;
  RecordingVersion version;
  DeviceAdmin admin;
};

// Given a device that answers, each operation's exchange and reports.
class PresentDeviceTest : public EmulatedDeviceTest {};

TEST_F(PresentDeviceTest, VersionReportsTheHexReplyThenTheVersionText) {
  ASSERT_EQ(admin.RetrieveVersionAsync(&version, &progress, &log, false), 0);
  ASSERT_TRUE(OperationEnds(admin));
  const Block reply = BuildTextPacket(PacketType::Version, kDeviceVersion);
  EXPECT_EQ(version.Texts(), (Lines{"Read data :" + BytesToHex(reply.data(), 64), "Version - 1.2.3"}));
  EXPECT_EQ(progress.Reports(), std::vector<int>{100});
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ(out.Text(), std::string(kOpened) + "NONVERBOSE MODE DETECTED!\nSPI SUPPORT IS TURNED ON!\n");
}

TEST_F(PresentDeviceTest, CliSessionSwitchesModeAndPrintsCommandOutput) {
  ASSERT_EQ(admin.StartCliAsync(&progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(PayloadTextOf(LastReceived()), "CLI On");
  EXPECT_EQ(out.Text(), std::string(kOpened) + "SPI SUPPORT IS TURNED ON!\n");

  ASSERT_EQ(admin.SendCliCommandAsync("echo hello", &progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(out.Text(), std::string(kOpened) + "SPI SUPPORT IS TURNED ON!\n" + kOpened + "\nhello\n");

  const std::string command = "echo " + std::string(55, 'a');
  ASSERT_EQ(admin.SendCliCommandAsync(command, &progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));
  const Block sent = LastReceived();
  EXPECT_EQ(std::string(sent.begin() + 6, sent.begin() + 63), command.substr(0, 57));

  ASSERT_EQ(admin.StopCliAsync(&progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(PayloadTextOf(LastReceived()), "CLI Off");
  EXPECT_EQ(log.Lines(), (Lines{"STARTING CLI MODE...\n", "Ending CLI Mode now."}));
  EXPECT_TRUE(progress.Reports().empty());
}

TEST_F(PresentDeviceTest, OrtStartAndEndSendTheirTexts) {
  char ortString[] = "ort start extmic reboot 5 duration 20 ";
  ASSERT_EQ(admin.StartOrtAsync(&progress, &log, ortString), 0);
  ASSERT_TRUE(OperationEnds(admin));
  Block sent = LastReceived();
  EXPECT_EQ(sent[0], 8);
  EXPECT_EQ(sent[5], 57);
  EXPECT_EQ(std::memcmp(sent.data() + 6, ortString, sizeof ortString), 0);  // with its terminator
  EXPECT_TRUE(PacketCrcMatches(sent.data()));

  ASSERT_EQ(admin.EndOrtAsync(&progress, &log, false), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(PayloadTextOf(LastReceived()), "ort end");
  EXPECT_EQ(log.Lines(), (Lines{"Sent ORT message to device successfully.", "Sent 'ort end' to device successfully."}));
  EXPECT_EQ(progress.Reports(), (std::vector<int>{5, 100, 5, 100}));
  EXPECT_EQ(out.Text(), std::string(kOpened) + "SPI SUPPORT IS TURNED ON!\nNONVERBOSE MODE DETECTED!\n" + kOpened +
                            "SPI SUPPORT IS TURNED ON!\n");
}

TEST_F(PresentDeviceTest, CaptouchSendsTheRawRebootBlock) {
  ASSERT_EQ(admin.ProgramCaptouchAsync(&progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));
  const Block sent = LastReceived();
  const std::string expected = "\rreboot\r" + std::string(55, ' ') + std::string(1, '\0');
  EXPECT_EQ(std::string(sent.begin(), sent.end()), expected);
  EXPECT_EQ(log.Lines(), Lines{"Sent reboot message to device successfully."});
  EXPECT_EQ(progress.Reports(), (std::vector<int>{5, 100}));
}

TEST_F(PresentDeviceTest, CancelDuringAnUpgradeWaitsThenSendsOneCancelThenPrintsThenSignals) {
  const fs::path bundle = rootDir / "bundle.img";
  WriteFile(bundle, RandomBytes(3 << 20, 7));
  ASSERT_EQ(admin.UpgradeBundleAsync(bundle.string(), &progress, &log, false), 0);
  ASSERT_TRUE(WaitUntil([&] { return server.Received().size() > 100; }, milliseconds(10000)));

  std::string seenAtSignal;
  std::thread watcher([&] {
    if (admin.WaitForCancelEvent(kOperationBound)) seenAtSignal = out.Text();
  });
  admin.CancelOperation(&log);
  watcher.join();

  const auto blocks = server.Received();
  ASSERT_FALSE(blocks.empty());
  EXPECT_EQ(blocks.back()[0], 7);
  EXPECT_EQ(PayloadTextOf(blocks.back()), "Cancel");
  size_t cancels = 0;
  for (const auto& block : blocks) cancels += block[0] == 7 ? 1 : 0;
  EXPECT_EQ(cancels, 1u);
  const std::string text = out.Text();
  const size_t aborted = text.find("Upgrading is aborted.\n");
  const size_t succeeded = text.find("Cancel Operation has succeeded.\n");
  EXPECT_NE(aborted, std::string::npos);
  EXPECT_LT(aborted, succeeded);
  EXPECT_NE(seenAtSignal.find("Cancel Operation has succeeded.\n"), std::string::npos);
}

// Given no device at the endpoint, the operations report the failed open.
class AbsentDeviceTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(admin.Shutdown(kShutdownBound)); }
  StdoutCapture out;
  TempDir dir;
  RecordingLog log;
  RecordingProgress progress;
  RecordingVersion version;
  DeviceAdmin admin{platform::CreateEmulatorBackend((dir / "missing.sock").string())};
};

TEST_F(AbsentDeviceTest, VersionPrintsNotFoundAndLogsTheFailedWrite) {
  ASSERT_EQ(admin.RetrieveVersionAsync(&version, &progress, &log, false), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(out.Text(), std::string(kNotFound) + "NONVERBOSE MODE DETECTED!\nSPI SUPPORT IS TURNED ON!\n");
  EXPECT_EQ(log.Lines(), Lines{"Failed in writing 'Version Retrieval' to device."});
  EXPECT_TRUE(version.Texts().empty());
  EXPECT_TRUE(progress.Reports().empty());
}

TEST_F(AbsentDeviceTest, CliStartPrintsFailedToOpenAndCommandOnlyLogs) {
  ASSERT_EQ(admin.StartCliAsync(&progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(out.Text(), std::string(kNotFound) + "Failed to open device\n");
  ASSERT_EQ(admin.SendCliCommandAsync("ls", &progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(out.Text(), std::string(kNotFound) + "Failed to open device\n" + kNotFound);
  const std::string connectFailure = "Error:Failed to connect to the bulk interface, device might be disconnected";
  EXPECT_EQ(log.Lines(), (Lines{connectFailure, connectFailure}));
}

// Given a version reply with a corrupted CRC, only the hex line is reported.
class CorruptReplyTest : public EmulatedDeviceTest {
 protected:
  CorruptReplyTest() : EmulatedDeviceTest({"--fault", "corrupt-version-crc"}) {}
};

TEST_F(CorruptReplyTest, VersionPrintsTheThreeCrcLines) {
  ASSERT_EQ(admin.RetrieveVersionAsync(&version, &progress, &log, false), 0);
  ASSERT_TRUE(OperationEnds(admin));
  Block reply = BuildTextPacket(PacketType::Version, kDeviceVersion);
  const uint8_t good = reply[63];
  char crcLines[128];
  std::snprintf(crcLines, sizeof crcLines, "CRC failed.\nCRC you gave me - %x\nCRC I calculated - %x\n", good ^ 0xFF,
                good);
  EXPECT_EQ(out.Text(), std::string(kOpened) + "NONVERBOSE MODE DETECTED!\nSPI SUPPORT IS TURNED ON!\n" + crcLines);
  ASSERT_EQ(version.Texts().size(), 1u);
  EXPECT_EQ(version.Texts()[0].substr(0, 11), "Read data :");
  EXPECT_EQ(progress.Reports(), std::vector<int>{100});
}

// Given a device that withholds every write completion, each operation ends
// with its failure report instead of waiting.
class StalledWritesTest : public EmulatedDeviceTest {
 protected:
  StalledWritesTest() : EmulatedDeviceTest({"--fault", "stall-writes"}) {}
};

TEST_F(StalledWritesTest, VersionLogsTheFailedWriteWithoutProgress) {
  ASSERT_EQ(admin.RetrieveVersionAsync(&version, &progress, &log, false), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(log.Lines(), Lines{"Failed in writing 'Version Retrieval' to device."});
  EXPECT_TRUE(progress.Reports().empty());
}

TEST_F(StalledWritesTest, CliStartAndStopReconnectSilently) {
  ASSERT_EQ(admin.StartCliAsync(&progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));
  ASSERT_EQ(admin.StopCliAsync(&progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ(out.Text(), std::string(kOpened) + "SPI SUPPORT IS TURNED ON!\n" + kOpened + kOpened + kOpened);
}

TEST_F(StalledWritesTest, CliCommandLogsTheFailedWriteAndWaitsForOutput) {
  ASSERT_EQ(admin.SendCliCommandAsync("echo hi", &progress, &log), 0);
  EXPECT_TRUE(WaitUntil([&] { return !log.Lines().empty(); }, milliseconds(5000)));
  EXPECT_EQ(log.Lines(), Lines{"Failed in writing CLI command to device."});
}

TEST_F(StalledWritesTest, OrtStartGivesUpAfterItsBound) {
  char ortString[] = "ort start";
  ASSERT_EQ(admin.StartOrtAsync(&progress, &log, ortString), 0);
  ASSERT_TRUE(OperationEnds(admin, milliseconds(20000)));
  Lines expected(5, "Failed to send ORT message to device.");
  expected.push_back("Error: Giving up after 5 failed attempts to send the ORT message.");
  EXPECT_EQ(log.Lines(), expected);
  EXPECT_EQ(progress.Reports(), std::vector<int>{5});
}

}  // namespace
}  // namespace ferrolt::test
