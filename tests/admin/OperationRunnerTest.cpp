// The runner around every operation: the busy guard, the cancel and its
// event, and the bounded shutdown.
#include <algorithm>
#include <atomic>
#include <thread>

#include "link/Limits.h"
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

// A progress callback that holds the worker at its first report until the
// test lets it go.
class HoldUntilReleased : public IProgressChangeCallBack {
 public:
  void ProgressChangeCallBack(int) override {
    reached.store(true);
    WaitUntil([this] { return released.load(); });
  }
  std::atomic<bool> reached{false};
  std::atomic<bool> released{false};
};

size_t Occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

size_t CancelPackets(const std::vector<DeviceBlock>& written) {
  return static_cast<size_t>(std::count_if(written.begin(), written.end(), [](const DeviceBlock& block) {
    return block[0] == static_cast<uint8_t>(PacketType::Cancel);
  }));
}

// Given two Ctrl+Breaks while an upgrade still runs (it leaves the link open
// at a cancel), each is a whole cancel: its own Cancel packet and its own
// line, no write cut short by the other's event, which comes only after both
// lines.
class SecondCancelTest : public RawDeviceFixture {};

TEST_F(SecondCancelTest, EachCancelWritesItsPacketAndPrintsItsLine) {
  HoldUntilReleased hold;
  TempDir dir;
  WriteFile(dir / "bundle.img", std::string(570, 'b'));
  ASSERT_EQ(admin.UpgradeBundleAsync((dir / "bundle.img").string(), &hold, &log, false), 0);
  ASSERT_TRUE(WaitUntil([&] { return hold.reached.load(); }));
  std::thread first([&] { admin.CancelOperation(&log); });
  ASSERT_TRUE(WaitUntil([&] { return !admin.IsOperationRunning(); }));
  std::thread second([&] { admin.CancelOperation(&log); });
  // Time for the second cancel to get under way before the worker ends.
  std::this_thread::sleep_for(milliseconds(500));
  EXPECT_FALSE(admin.WaitForCancelEvent(milliseconds(0)));
  hold.released.store(true);
  first.join();
  second.join();

  EXPECT_TRUE(admin.WaitForCancelEvent(milliseconds(0)));
  EXPECT_EQ(CancelPackets(device.Written()), 2u);
  EXPECT_EQ(Occurrences(out.Text(), "Cancel Operation has succeeded.\n"), 2u);
  EXPECT_FALSE(log.Has("Operation has been Canceled"));
}

// Given a download request the device keeps refusing, a Ctrl+Break in the
// retries ends them at once, not after the rounds' pauses.
TEST_F(SecondCancelTest, ACancelEndsTheRequestRetriesPromptly) {
  device.OnWrite([](const DeviceBlock& block) { return block[0] == static_cast<uint8_t>(PacketType::Cancel); });
  TempDir dir;
  ASSERT_EQ(admin.DownloadFileAsync("/tmp/f", (dir / "f").string(), &progress, &log), 0);
  ASSERT_TRUE(WaitUntil([&] { return !device.Written().empty(); }));
  const auto start = std::chrono::steady_clock::now();
  admin.CancelOperation(&log);
  // The rounds left would take four reconnect pauses.
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2 * limits::kReconnectPause);
  EXPECT_EQ(log.CountStartingWith("Error: Giving up"), 0u);
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
