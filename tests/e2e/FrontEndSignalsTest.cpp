#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <string>

#include "devsim/DevicePackets.h"
#include "tests/e2e/FrontEndRuns.h"

namespace ferrolt::test {
namespace {

// A bundle of 2000 packets; with each write completed 5 ms late the upgrade
// runs for about ten seconds.
constexpr size_t kBundleSize = 57 * 2000;
constexpr const char* kSlowWrites = "delay-writes=5";
// A download of about three seconds over the emulator link.
constexpr size_t kDownloadSize = size_t{8} << 20;
// A Break lets the download run to its end: under a sanitizer, on a loaded
// machine, that takes many times the three seconds.
constexpr milliseconds kDownloadLimit{90000};

// Given a run in progress, Ctrl+Break (SIGQUIT) cancels it and the other signals end it with status 1.
class FrontEndSignalsTest : public testing::Test {
 protected:
  std::unique_ptr<Subprocess> StartUpgrade(const DeviceUnderTest& device) {
    WriteFile(dir_ / "bundle.img", RandomBytes(kBundleSize, 7));
    return StartFerrolt({"upgrade", (dir_ / "bundle.img").string()}, device, dir_.Path());
  }

  static milliseconds Since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
  }

  TempDir dir_;
};

TEST_F(FrontEndSignalsTest, InterruptDuringAnOperationExitsWithStatusOne) {
  const auto device = StartDevice({"--fault", kSlowWrites});
  ASSERT_TRUE(device->Running());
  auto run = StartUpgrade(*device);
  ASSERT_TRUE(run->WaitForOutput("Progress: ", kRunLimit));
  const auto signalled = std::chrono::steady_clock::now();
  run->Signal(SIGINT);
  const ProcessResult result = run->Wait(kRunLimit);
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_LT(Since(signalled), kPromptExit);
  EXPECT_EQ(result.out.find("Cancel"), std::string::npos);
}

TEST_F(FrontEndSignalsTest, BreakWithoutOperationCancelsAndEndsTheWait) {
  // Without a device the worker ends after its one flushed log line; the run
  // is then in its end wait with no operation running.
  const auto noDevice = StartNoDevice();
  auto run = StartFerrolt({"endort"}, *noDevice, dir_.Path());
  ASSERT_TRUE(run->WaitForOutput("LogMessageCallBack:", kRunLimit));
  const auto signalled = std::chrono::steady_clock::now();
  run->Signal(SIGQUIT);
  const ProcessResult result = run->Wait(kRunLimit);
  const size_t requested = result.out.find(kCancelRequested);
  ASSERT_NE(requested, std::string::npos) << result.out;
  EXPECT_NE(result.out.find(kCancelSucceeded, requested), std::string::npos);
  EXPECT_EQ(result.out.substr(result.out.size() - std::string(kCanceledLine).size()), kCanceledLine);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_LT(Since(signalled), kAtOnce);
}

// With the opt-in exit status, the run says it was cancelled.
TEST_F(FrontEndSignalsTest, BreakDuringUpgradeSendsTheCancelPacket) {
  const auto device = StartDevice({"--fault", kSlowWrites});
  ASSERT_TRUE(device->Running());
  // The child takes the variable from this process's environment.
  setenv("FERROLT_EXIT_STATUS", "1", 1);
  auto run = StartUpgrade(*device);
  unsetenv("FERROLT_EXIT_STATUS");
  ASSERT_TRUE(run->WaitForOutput("Progress: ", kRunLimit));
  const auto signalled = std::chrono::steady_clock::now();
  run->Signal(SIGQUIT);
  const ProcessResult result = run->Wait(kRunLimit);
  EXPECT_LT(Since(signalled), kAtOnce);
  EXPECT_EQ(result.exitStatus, 7);
  const std::string tail = std::string(kCancelSucceeded) + kCanceledLine;
  EXPECT_EQ(result.out.substr(result.out.size() - tail.size()), tail) << result.out;
  const size_t aborted = result.out.find("Upgrading is aborted.\n");
  EXPECT_LT(result.out.find(kCancelRequested), aborted);
  EXPECT_LT(aborted, result.out.size() - tail.size());
  EXPECT_EQ(result.out.find("Progress: 100%"), std::string::npos);

  // The cancel goes out instead of the end packet.
  const std::vector<Block> received = device->Received();
  ASSERT_FALSE(received.empty());
  EXPECT_EQ(devsim::TypeOf(received.back()), devsim::kTypeCancel);
  EXPECT_EQ(devsim::PayloadText(received.back()), "Cancel");
  for (const Block& block : received) EXPECT_NE(devsim::PayloadText(block), "Ending Upgrade");
}

// Standard output to a pipe is flushed in periods, not line by line. A run
// signalled mid-download (a Break cancels it, and the device may finish the
// file meanwhile) still leaves every line it printed on the pipe: at
// least one "Read data" line for the start reply and for each block in the
// file, as a block is logged before it is written. These rows are POSIX
// only: Windows has no SIGTERM or SIGHUP, and Wine, given one, kills its
// process at once with no handler run (the Windows build's Ctrl+C row is
// tests/windows/control-c.sh).
struct CutOff {
  const char* name;
  int signal;
  int exitStatus;
};

class DownloadCutOffTest : public FrontEndSignalsTest, public testing::WithParamInterface<CutOff> {};

TEST_P(DownloadCutOffTest, EveryPrintedLineReachesThePipe) {
  const fs::path root = dir_ / "device";
  fs::create_directories(root / "tmp");
  WriteFile(root / "tmp" / "big", RandomBytes(kDownloadSize, 5));
  const auto device = StartDevice({}, root);
  ASSERT_TRUE(device->Running());
  auto run = StartFerrolt({"download", "/tmp/big", "big"}, *device, dir_.Path());
  ASSERT_TRUE(run->WaitForOutput("Read data :", kRunLimit)) << run->OutSoFar();
  run->Signal(GetParam().signal);
  const ProcessResult result = run->Wait(kDownloadLimit);
  EXPECT_EQ(result.exitStatus, GetParam().exitStatus);
  ASSERT_FALSE(result.out.empty());
  EXPECT_EQ(result.out.back(), '\n');
  const size_t written = fs::file_size(dir_ / "big");
  EXPECT_GE(CountOf(result.out, "Read data :"), 1 + (written + devsim::kPayloadSize - 1) / devsim::kPayloadSize);
}

INSTANTIATE_TEST_SUITE_P(Signals, DownloadCutOffTest,
                         testing::Values(CutOff{"Interrupt", SIGINT, 1}, CutOff{"Terminate", SIGTERM, 1},
                                         CutOff{"HangUp", SIGHUP, 1}, CutOff{"Break", SIGQUIT, 0}),
                         [](const testing::TestParamInfo<CutOff>& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace ferrolt::test
