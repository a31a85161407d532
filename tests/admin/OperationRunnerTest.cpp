// The runner around every operation: the busy guard, the cancel and its
// event, and the bounded shutdown.
#include <atomic>
#include <thread>

#include "tests/support/DeviceAdminFixture.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;

constexpr const char* kBusy =
    "Error: Another operation is already running now. Please wait the current operation or cancel to start new "
    "operation.";

// Given a CLI command waiting for its output, a second launch is refused and
// the first operation is left as it was; once it has ended, a launch is taken.
class BusyGuardTest : public RawDeviceFixture {};

TEST_F(BusyGuardTest, SecondLaunchIsRefusedWithTheBusyLineAndSendsNothing) {
  ASSERT_EQ(admin.SendCliCommandAsync("sleep 5", &progress, &log), 0);
  EXPECT_TRUE(admin.IsOperationRunning());
  EXPECT_EQ(admin.StartCliAsync(&progress, &log), 1);
  EXPECT_EQ(admin.RetrieveVersionAsync(&version, &progress, nullptr, false), 1);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{kBusy});
  EXPECT_TRUE(admin.IsOperationRunning());

  // The output's end, once the command has gone out: the device answers
  // nothing before it is asked.
  const auto deadline = std::chrono::steady_clock::now() + kOperationBound;
  while (device.Written().empty() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(milliseconds(2));
  device.Send(MakeDevicePacket(4, 57, "ending testdata"));
  admin.WaitForOperation();
  EXPECT_FALSE(admin.IsOperationRunning());
  EXPECT_EQ(device.Written().size(), 1u);      // only the command
  EXPECT_EQ(device.OpenedPaths().size(), 1u);  // the refused version launch did not open the link

  EXPECT_EQ(admin.EndOrtAsync(&progress, &log, false), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(log.Lines().back(), "Sent 'ort end' to device successfully.");
}

// Given no operation, the wait returns at once and the cancel does not block.
class IdleRunnerTest : public RawDeviceFixture {};

TEST_F(IdleRunnerTest, WaitReturnsAtOnceAndCancelPrintsSignalsAndSendsNothing) {
  const auto start = std::chrono::steady_clock::now();
  admin.WaitForOperation();
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(100));
  EXPECT_FALSE(admin.WaitForCancelEvent(milliseconds(0)));

  admin.CancelOperation(&log);
  EXPECT_TRUE(admin.WaitForCancelEvent(milliseconds(0)));
  EXPECT_EQ(out.Text(), "Cancel Operation has succeeded.\n");
  EXPECT_TRUE(device.Written().empty());  // the cancel does not reopen the link
  EXPECT_TRUE(log.Lines().empty());       // a write time-out has no message

  // The next launch starts with the event reset.
  ASSERT_EQ(admin.EndOrtAsync(&progress, &log, true), 0);
  EXPECT_FALSE(admin.WaitForCancelEvent(milliseconds(0)));
  ASSERT_TRUE(OperationEnds(admin));
}

// A progress callback that holds the worker at its first report until the
// runner's flag has been cleared by a cancel.
class HoldUntilCancelled : public IProgressChangeCallBack {
 public:
  explicit HoldUntilCancelled(const DeviceAdmin& admin) : admin_(admin) {}
  void ProgressChangeCallBack(int percent) override {
    reached.store(true);
    if (percent == 5) OperationEnds(admin_);
    released.store(true);
  }
  std::atomic<bool> reached{false};
  std::atomic<bool> released{false};

 private:
  const DeviceAdmin& admin_;
};

// Given an ORT start held at its flag check, a cancel stops it before it
// sends, waits for it, and only then prints its line and signals the event.
class CancelOrderTest : public RawDeviceFixture {};

TEST_F(CancelOrderTest, CancelWaitsForTheWorkerThenPrintsThenSignals) {
  HoldUntilCancelled hold(admin);
  char ortString[] = "ort start";
  ASSERT_EQ(admin.StartOrtAsync(&hold, &log, ortString), 0);
  const auto deadline = std::chrono::steady_clock::now() + kOperationBound;
  while (!hold.reached.load() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(milliseconds(1));
  ASSERT_TRUE(hold.reached.load());

  std::string seenAtSignal;
  std::thread watcher([&] {
    if (admin.WaitForCancelEvent(kOperationBound)) seenAtSignal = out.Text();
  });
  admin.CancelOperation(&log);
  EXPECT_TRUE(hold.released.load());  // the cancel returned after the worker
  watcher.join();

  EXPECT_TRUE(device.Written().empty());  // the held worker gave up its exchange
  EXPECT_EQ(device.LiveConnections(), 0);
  EXPECT_NE(seenAtSignal.find("Cancel Operation has succeeded.\n"), std::string::npos);
  EXPECT_EQ(out.Text().find("SPI SUPPORT"), std::string::npos);
}

// Given a command whose output never ends, teardown still ends the worker.
class ShutdownTest : public RawDeviceFixture {};

TEST_F(ShutdownTest, ShutdownEndsAnEndlessCommandWithinItsBound) {
  ASSERT_EQ(admin.SendCliCommandAsync("yes", &progress, &log), 0);
  std::this_thread::sleep_for(milliseconds(50));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(admin.Shutdown(kShutdownBound));
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(3000));
}

}  // namespace
}  // namespace ferrolt::test
