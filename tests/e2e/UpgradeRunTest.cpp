// `ferrolt upgrade` as a user runs it, against ferrolt-devsim: the console
// bytes, what reached the device, the stored bundle, and the run's end.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>

#include "devsim/DevicePackets.h"
#include "tests/support/EndToEnd.h"

namespace ferrolt::test {
namespace {

constexpr milliseconds kUpgradeRunLimit{40000};
constexpr milliseconds kSignalWait{20000};
// After Ctrl+Break the run ends at once: the cancel signals the end wait.
constexpr milliseconds kPromptEnd{3000};
constexpr const char* kReaderLine = "LogMessageCallBack:\tUpgrade complete, ending update\n";

fs::path BundleImage(const DeviceUnderTest& server) { return server.Root() / "upgrade" / "bundle.img"; }

bool IsEndPacket(const Block& block) {
  return devsim::TypeOf(block) == devsim::kTypeUpgrade && devsim::PayloadText(block) == "Ending Upgrade";
}

// Given a running device and a bundle file, `ferrolt upgrade FILE` ...
class UpgradeRun : public ::testing::Test {
 protected:
  void StartDevice(std::vector<std::string> faults = {}) {
    std::vector<std::string> args;
    for (const auto& fault : faults) {
      args.push_back("--fault");
      args.push_back(fault);
    }
    server_ = test::StartDevice(args);
    ASSERT_TRUE(server_->Running());
  }
  fs::path Bundle(const std::string& bytes) {
    const fs::path path = dir_ / "bundle.bin";
    WriteFile(path, bytes);
    return path;
  }
  ProcessResult Upgrade(const fs::path& path) {
    return RunFerrolt({"upgrade", path.string()}, *server_, dir_.Path(), kUpgradeRunLimit);
  }

  TempDir dir_;
  std::unique_ptr<DeviceUnderTest> server_;
};

TEST_F(UpgradeRun, PrintsTheWholeExchangeAndStoresTheBundle) {
  StartDevice();
  const std::string bytes = RandomBytes(58, 21);
  const fs::path path = Bundle(bytes);
  const ProcessResult run = Upgrade(path);
  EXPECT_EQ(run.exitStatus, 0);

  // The reader reports the device's end text on its own thread; where it
  // lands among the worker's closing lines is not fixed.
  std::string out = run.out;
  const size_t reader = out.find(kReaderLine);
  ASSERT_NE(reader, std::string::npos) << out;
  out.erase(reader, std::strlen(kReaderLine));
  EXPECT_GT(reader, run.out.find("Downloading Upgrade Bundle now."));
  EXPECT_LT(reader, run.out.find("I am done with the reader thread."));

  const std::string log = "LogMessageCallBack:\t";
  const std::string expected = "Device speed: 3 (High speed).\n" + log + "I found specified file - " + path.string() +
                               "\n"
                               "SPI SUPPORT IS TURNED ON!\n"
                               "ProgressChangeCallBack:\t10 percent completed\n" +
                               log + "Getting File Size...Seeking to end of file.\n" + log + "Success.\n" + log +
                               "Seeking to beginning of file.\n" + log + "Success.\n" + log +
                               "Successful in writing 'Starting Upgrade' to device.\n" + log +
                               "Downloading Upgrade Bundle now.\n" + log + "Progress: 0%\n" + log + "Progress: 50%\n" +
                               log + "Progress: 100%\n" + log +
                               "Download of upgrade bundle to device has completed.\n"
                               "\n-------------------------------------------\n"
                               "File Size = 58\n"
                               "Packet Count = 2\n"
                               "I am done with the reader thread.\n" +
                               log + "Please wait until reboot of device is done.\n";
  EXPECT_EQ(out, expected);
  EXPECT_EQ(ReadFile(BundleImage(*server_)), bytes);
}

TEST_F(UpgradeRun, SendsStartZeroZeroAndTheEndPacketForAnEmptyFile) {
  StartDevice();
  const ProcessResult run = Upgrade(Bundle(""));
  EXPECT_NE(run.out.find("Packet Count = 0\n"), std::string::npos);
  const auto received = server_->Received();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(devsim::RawText(received[0]), "Starting Upgrade 0 0");
  EXPECT_TRUE(IsEndPacket(received[1]));
  EXPECT_EQ(ReadFile(BundleImage(*server_)), "");
}

TEST_F(UpgradeRun, ReportsTheBundleVersionAfterwards) {
  StartDevice();
  const std::string bytes = "FERROLT-BUNDLE version=5.6.7\n" + RandomBytes(4000, 22);
  Upgrade(Bundle(bytes));
  const ProcessResult version = RunFerrolt({"version"}, *server_, dir_.Path(), kUpgradeRunLimit);
  EXPECT_NE(version.out.find("VersionInfoReadyCallBack:\tVersion - 5.6.7\n"), std::string::npos) << version.out;
}

// Given a bundle the tool will not send, nothing reaches the device.
TEST_F(UpgradeRun, RefusesA2GiBFileBeforeSendingAnything) {
  StartDevice();
  const fs::path path = Bundle("");
  fs::resize_file(path, (uint64_t{2} << 30) + 1);
  const ProcessResult run = Upgrade(path);
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_NE(run.out.find("2 GiB"), std::string::npos);
  EXPECT_EQ(run.out.find("Starting Upgrade"), std::string::npos);
  EXPECT_TRUE(server_->Received().empty());
}

// Given a device that misbehaves at the link, the run still ends by itself.
TEST_F(UpgradeRun, StopsWhenTheStartCommandIsNotTaken) {
  StartDevice({"stall-writes"});
  const ProcessResult run = Upgrade(Bundle(RandomBytes(500, 23)));
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_NE(run.out.find("LogMessageCallBack:\tFailed in writing 'Starting Upgrade' to device.\n"), std::string::npos);
  EXPECT_EQ(run.out.find("Downloading Upgrade Bundle now."), std::string::npos);
  EXPECT_EQ(server_->Received().size(), 1u);
}

TEST_F(UpgradeRun, GivesUpOnADeviceThatDisappearsMidStream) {
  StartDevice({"drop-after=200"});
  const ProcessResult run = Upgrade(Bundle(RandomBytes(57 * 1000, 24)));
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_FALSE(run.timedOut);
  EXPECT_NE(run.out.find("A write retry was detected!\n"), std::string::npos);
  EXPECT_NE(run.out.find("could not be written after 20 attempts"), std::string::npos);
  EXPECT_EQ(run.out.find("Ending Upgrade"), std::string::npos);
  for (const Block& block : server_->Received()) EXPECT_FALSE(IsEndPacket(block));
}

TEST_F(UpgradeRun, AbortsOnCtrlBreakAndSendsTheCancelInsteadOfTheEnd) {
  StartDevice({"delay-writes=1"});
  auto ferrolt = StartFerrolt({"upgrade", Bundle(RandomBytes(57 * 4000, 25)).string()}, *server_, dir_.Path());
  ASSERT_TRUE(ferrolt->WaitForOutput("Progress: 5%", kSignalWait)) << ferrolt->OutSoFar();
  const auto signalled = std::chrono::steady_clock::now();
  ferrolt->Signal(SIGQUIT);
  const ProcessResult run = ferrolt->Wait(kUpgradeRunLimit);
  const auto took = std::chrono::steady_clock::now() - signalled;
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_LT(took, kPromptEnd);
  const size_t aborted = run.out.find("Upgrading is aborted.\n");
  ASSERT_NE(aborted, std::string::npos) << run.out;
  EXPECT_LT(run.out.find("\nCancel operation has been requested.\n"), aborted);
  EXPECT_GT(run.out.find("Cancel Operation has succeeded.\n"), aborted);
  EXPECT_EQ(run.out.find("Progress: 100%"), std::string::npos);
  const auto received = server_->Received();
  ASSERT_FALSE(received.empty());
  EXPECT_EQ(devsim::TypeOf(received.back()), devsim::kTypeCancel);
  for (const Block& block : received) EXPECT_FALSE(IsEndPacket(block));
}

}  // namespace
}  // namespace ferrolt::test
