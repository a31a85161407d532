// The short commands as a user runs them: the built ferrolt against
// ferrolt-devsim, whole standard output compared byte for byte.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "devsim/DevicePackets.h"
#include "tests/support/EndToEnd.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;

constexpr const char* kOpened = "Device speed: 3 (High speed).\n";
constexpr const char* kNotFound = "Device not found.\nGeneral failure. GetLastError returned 80070103.\n";
constexpr const char* kSpi = "SPI SUPPORT IS TURNED ON!\n";
constexpr const char* kConnectFailure =
    "LogMessageCallBack:\tError:Failed to connect to the bulk interface, device might be disconnected\n";

std::string Progress(int percent) {
  return "ProgressChangeCallBack:\t" + std::to_string(percent) + " percent completed\n";
}
std::string Log(const std::string& text) { return "LogMessageCallBack:\t" + text + "\n"; }

// The version reply devsim sends for the version text.
devsim::Block VersionReply(const std::string& text) { return devsim::MakeTextPacket(devsim::kTypeVersion, text); }
std::string HexOf(const devsim::Block& block) { return devsim::HexOf(block.data(), block.size()); }

// A device root holding a known version, with CLI mode on.
fs::path PrepareRoot(const TempDir& dir) {
  const fs::path root = dir / "root";
  fs::create_directories(root);
  WriteFile(root / "version", "1.2.3");
  WriteFile(root / "cli-mode", "on\n");
  return root;
}

class OperationsE2eTest : public ::testing::Test {
 protected:
  explicit OperationsE2eTest(std::vector<std::string> faults = {})
      : server(StartDevice(std::move(faults), PrepareRoot(dir))) {}
  void SetUp() override {
    ASSERT_TRUE(server->Running());
    fs::create_directories(cwd);
  }
  ProcessResult Run(const std::vector<std::string>& args) { return RunFerrolt(args, *server, cwd); }

  TempDir dir;
  fs::path cwd = dir / "work";
  std::unique_ptr<DeviceUnderTest> server;
};

// Given a device that answers, each command prints exactly its lines.
class PresentDeviceE2eTest : public OperationsE2eTest {};

TEST_F(PresentDeviceE2eTest, VersionPrintsTheReplyAndProgress) {
  const auto result = Run({"version"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out, std::string(kOpened) + "NONVERBOSE MODE DETECTED!\n" + kSpi +
                            "VersionInfoReadyCallBack:\tRead data :" + HexOf(VersionReply("1.2.3")) + "\n" +
                            "VersionInfoReadyCallBack:\tVersion - 1.2.3\n" + Progress(100));
}

// A device learns nothing of a host that goes away: the rest of a download
// cut off by Ctrl+C is still queued for the host when the next run opens.
TEST_F(PresentDeviceE2eTest, VersionAfterACutOffDownloadPrintsOnlyItsOwnReply) {
  fs::create_directories(dir / "root" / "tmp");
  WriteFile(dir / "root" / "tmp" / "big", RandomBytes(2 << 20, 3));
  auto download = StartFerrolt({"download", "/tmp/big", "big"}, *server, cwd);
  ASSERT_TRUE(download->WaitForOutput("percent completed", milliseconds(30000))) << download->OutSoFar();
  download->Signal(SIGINT);
  EXPECT_EQ(download->Wait(milliseconds(30000)).exitStatus, 1);

  const auto result = Run({"version"});
  EXPECT_EQ(result.out, std::string(kOpened) + "NONVERBOSE MODE DETECTED!\n" + kSpi +
                            "VersionInfoReadyCallBack:\tRead data :" + HexOf(VersionReply("1.2.3")) + "\n" +
                            "VersionInfoReadyCallBack:\tVersion - 1.2.3\n" + Progress(100));
}

TEST_F(PresentDeviceE2eTest, CliSessionRunsCommandsAndPrintsDeviceTextAsText) {
  auto result = Run({"startcli"});
  EXPECT_EQ(result.out, std::string(kOpened) + kSpi + Log("STARTING CLI MODE...\n"));
  result = Run({"cmd", "echo hello"});
  EXPECT_EQ(result.out, std::string(kOpened) + "\nhello\n");
  result = Run({"cmd", "echo 100%n %s"});
  EXPECT_EQ(result.out, std::string(kOpened) + "\n100%n %s\n");
  result = Run({"stopcli"});
  EXPECT_EQ(result.out, std::string(kOpened) + Log("Ending CLI Mode now."));
  EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(PresentDeviceE2eTest, OrtStartAndEnd) {
  auto result = Run({"startort", "extmic", "reboot", "5", "duration", "20"});
  EXPECT_EQ(result.out, "ORTstring = ort start extmic reboot 5 duration 20 " + std::string(kOpened) + Progress(5) +
                            kSpi + Log("Sent ORT message to device successfully.") + Progress(100));
  EXPECT_EQ(PayloadTextOf(server->Received().back()), "ort start extmic reboot 5 duration 20 ");
  result = Run({"endort"});
  EXPECT_EQ(result.out, "NONVERBOSE MODE DETECTED!\n" + std::string(kOpened) + Progress(5) + kSpi +
                            Log("Sent 'ort end' to device successfully.") + Progress(100));
  EXPECT_EQ(PayloadTextOf(server->Received().back()), "ort end");
}

TEST_F(PresentDeviceE2eTest, ProgCapSendsTheRebootRequest) {
  const auto result = Run({"progCap"});
  EXPECT_EQ(result.out, "Programming Captouch...\n" + std::string(kOpened) + Progress(5) + kSpi +
                            Log("Sent reboot message to device successfully.") + Progress(100));
  const auto sent = server->Received().back();
  EXPECT_EQ(std::string(sent.begin(), sent.end()), "\rreboot\r" + std::string(55, ' ') + std::string(1, '\0'));
}

// Given no device behind the endpoint, each command reports the failed open.
class AbsentDeviceE2eTest : public OperationsE2eTest {
 protected:
  ProcessResult RunAbsent(const std::vector<std::string>& args) { return RunFerrolt(args, *noDevice, cwd); }
  std::unique_ptr<DeviceUnderTest> noDevice = StartNoDevice();
};

TEST_F(AbsentDeviceE2eTest, EachCommandReportsTheMissingDevice) {
  EXPECT_EQ(RunAbsent({"version"}).out, std::string(kNotFound) + "NONVERBOSE MODE DETECTED!\n" + kSpi +
                                            Log("Failed in writing 'Version Retrieval' to device."));
  EXPECT_EQ(RunAbsent({"progCap"}).out, "Programming Captouch...\n" + std::string(kNotFound) + kConnectFailure);
  EXPECT_EQ(RunAbsent({"endort"}).out, "NONVERBOSE MODE DETECTED!\n" + std::string(kNotFound) + kConnectFailure);
  EXPECT_EQ(RunAbsent({"startort"}).out, "ORTstring = ort start" + std::string(kNotFound) + kConnectFailure);
  EXPECT_EQ(RunAbsent({"startcli"}).out, std::string(kNotFound) + kConnectFailure + "Failed to open device\n");
  EXPECT_EQ(RunAbsent({"cmd", "ls"}).out, std::string(kNotFound) + kConnectFailure);
  const auto result = RunAbsent({"stopcli"});
  EXPECT_EQ(result.out, std::string(kNotFound) + kConnectFailure + "Failed to open device\n");
  EXPECT_EQ(result.exitStatus, 0);
}

// Given a corrupted version reply, the CRC lines replace the version text.
class CorruptReplyE2eTest : public OperationsE2eTest {
 protected:
  CorruptReplyE2eTest() : OperationsE2eTest({"--fault", "corrupt-version-crc"}) {}
};

TEST_F(CorruptReplyE2eTest, VersionPrintsTheCrcLines) {
  devsim::Block reply = VersionReply("1.2.3");
  const unsigned crc = reply[63];
  reply[63] ^= 0xFF;
  const std::string hex = HexOf(reply);
  char crcLines[96];
  std::snprintf(crcLines, sizeof crcLines, "CRC failed.\nCRC you gave me - %x\nCRC I calculated - %x\n", crc ^ 0xFF,
                crc);
  EXPECT_EQ(Run({"version"}).out, std::string(kOpened) + "NONVERBOSE MODE DETECTED!\n" + kSpi +
                                      "VersionInfoReadyCallBack:\tRead data :" + hex + "\n" + crcLines + Progress(100));
}

// Given a device that withholds write completions, commands end with their
// failure lines.
class StalledWritesE2eTest : public OperationsE2eTest {
 protected:
  StalledWritesE2eTest() : OperationsE2eTest({"--fault", "stall-writes"}) {}
};

TEST_F(StalledWritesE2eTest, VersionAndCliSessionCommandsEnd) {
  EXPECT_EQ(Run({"version"}).out, std::string(kOpened) + "NONVERBOSE MODE DETECTED!\n" + kSpi +
                                      Log("Failed in writing 'Version Retrieval' to device."));
  EXPECT_EQ(Run({"startcli"}).out, std::string(kOpened) + kSpi + kOpened);
  EXPECT_EQ(Run({"stopcli"}).out, std::string(kOpened) + kOpened);
}

TEST_F(StalledWritesE2eTest, ProgCapGivesUpAfterFiveAttempts) {
  std::string expected = "Programming Captouch...\n" + std::string(kOpened) + Progress(5) + kSpi;
  for (int attempt = 1; attempt < 5; ++attempt) expected += Log("Failed to send reboot message to device.") + kOpened;
  expected += Log("Failed to send reboot message to device.") +
              Log("Error: Giving up after 5 failed attempts to send the reboot message.");
  const auto result = Run({"progCap"});
  EXPECT_EQ(result.out, expected);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_LT(result.elapsed, milliseconds(30000));
}

}  // namespace
}  // namespace ferrolt::test
