// The upgrade worker against a scripted device: what goes on the wire, in
// which order, and how the worker answers NACKs, failed writes and a device
// that never reports the end. The script delivers a NACK and holds the write
// until the response reader has taken it, so the step that sees it is known.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "admin/DeviceAdmin.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "tests/support/RecordingCallbacks.h"
#include "tests/support/TestSupport.h"

namespace ferrolt {
namespace {

using std::chrono::milliseconds;
using test::RecordingLog;
using test::RecordingProgress;
using test::TempDir;

constexpr uint8_t kOutPipe = 0x01;
constexpr uint8_t kInPipe = 0x81;
constexpr milliseconds kScriptWait{3000};
constexpr milliseconds kRunLimit{15000};
constexpr milliseconds kTeardownBound{2000};

// What the scripted device saw and what it will send; shared by the backend
// and every connection opened on it.
class ScriptedDevice {
 public:
  // Called on each OUT block (on the worker's thread) before it completes;
  // returns false to fail the write.
  std::function<bool(const Block&)> onWrite = [](const Block&) { return true; };

  std::shared_ptr<platform::Transfer> Write(const uint8_t* data, uint32_t length) {
    Block block{};
    std::memcpy(block.data(), data, std::min<size_t>(length, kBlockSize));
    {
      std::lock_guard<std::mutex> lock(mutex_);
      written_.push_back(block);
    }
    auto transfer = std::make_shared<platform::Transfer>(length);
    const bool ok = onWrite(block);
    transfer->Complete(ok, nullptr, ok ? length : 0);
    return transfer;
  }

  std::shared_ptr<platform::Transfer> StartRead(uint32_t length) {
    auto transfer = std::make_shared<platform::Transfer>(length);
    std::lock_guard<std::mutex> lock(mutex_);
    ++readsStarted_;
    if (!inbound_.empty()) {
      CompleteWith(transfer, inbound_.front());
      inbound_.pop_front();
    } else {
      pendingRead_ = transfer;
    }
    changed_.notify_all();
    return transfer;
  }

  // Queues one IN block for the host.
  void Send(const Block& block) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (auto pending = pendingRead_.lock()) {
      pendingRead_.reset();
      CompleteWith(pending, block);
    } else {
      inbound_.push_back(block);
    }
  }

  // Sends the block and returns once the reader has handled it (it has then
  // started its next read). False when that did not happen in time.
  bool SendAndWaitHandled(const Block& block) {
    Send(block);
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kScriptWait, [&] { return inbound_.empty() && readsStarted_ > takenBy_; });
  }

  void Abort() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (auto pending = pendingRead_.lock()) pending->Complete(false, nullptr, 0);
    pendingRead_.reset();
  }

  std::vector<Block> Written() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return written_;
  }

 private:
  void CompleteWith(const std::shared_ptr<platform::Transfer>& transfer, const Block& block) {
    takenBy_ = readsStarted_;
    transfer->Complete(true, block.data(), kBlockSize);
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Block> written_;
  std::deque<Block> inbound_;
  std::weak_ptr<platform::Transfer> pendingRead_;
  int readsStarted_ = 0;
  int takenBy_ = 0;  // the read that took the last IN block
};

class ScriptedConnection final : public platform::DeviceConnection {
 public:
  explicit ScriptedConnection(std::shared_ptr<ScriptedDevice> device) : device_(std::move(device)) {}
  ~ScriptedConnection() override { device_->Abort(); }
  bool Initialize() override { return true; }
  bool QueryInterfaceSettings(uint8_t& endpointCount) override {
    endpointCount = 2;
    return true;
  }
  bool QueryPipe(uint8_t index, platform::PipeInfo& pipe) override {
    pipe = {platform::PipeType::Bulk, index == 0 ? kOutPipe : kInPipe, kBlockSize};
    return true;
  }
  bool QueryDeviceSpeed(uint8_t& speed, uint32_t&) override {
    speed = platform::kSpeedHigh;
    return true;
  }
  std::shared_ptr<platform::Transfer> StartWrite(uint8_t, const uint8_t* data, uint32_t length) override {
    return device_->Write(data, length);
  }
  std::shared_ptr<platform::Transfer> StartRead(uint8_t, uint32_t length) override {
    return device_->StartRead(length);
  }
  bool FlushPipe(uint8_t) override { return true; }

 private:
  std::shared_ptr<ScriptedDevice> device_;
};

class ScriptedBackend final : public platform::DeviceBackend {
 public:
  explicit ScriptedBackend(std::shared_ptr<ScriptedDevice> device) : device_(std::move(device)) {}
  platform::InterfaceListing ListInterfaces() override {
    return {true, platform::kErrorNoMoreItems, {"\\\\?\\usb#vid_1209&pid_0001&mi_04#scripted"}};
  }
  std::unique_ptr<platform::DeviceConnection> Open(const std::string&) override {
    return std::make_unique<ScriptedConnection>(device_);
  }

 private:
  std::shared_ptr<ScriptedDevice> device_;
};

Block StatusText(const std::string& text) { return BuildTextPacket(PacketType::Upgrade, text); }

Block Nack(uint32_t number) {
  const uint8_t reason[] = {1};
  Block block{};
  BuildPacket(static_cast<uint8_t>(PacketType::Nack), number, reason, sizeof reason, block.data());
  return block;
}

bool IsEndPacket(const Block& block) {
  return block[kTypeOffset] == static_cast<uint8_t>(PacketType::Upgrade) &&
         PayloadText(block.data()) == "Ending Upgrade";
}

bool IsDataPacket(const Block& block, uint32_t number) {
  return block[kTypeOffset] == static_cast<uint8_t>(PacketType::Upgrade) && !IsEndPacket(block) &&
         PacketNumber(block.data()) == number;
}

// The numbers of the data packets written, in order.
std::vector<uint32_t> DataNumbers(const std::vector<Block>& written) {
  std::vector<uint32_t> numbers;
  for (const Block& block : written) {
    if (block[kTypeOffset] == static_cast<uint8_t>(PacketType::Upgrade) && !IsEndPacket(block))
      numbers.push_back(PacketNumber(block.data()));
  }
  return numbers;
}

std::vector<uint32_t> Range(uint32_t first, uint32_t last) {
  std::vector<uint32_t> numbers;
  for (uint32_t n = first; n <= last; ++n) numbers.push_back(n);
  return numbers;
}

std::vector<uint32_t> Joined(std::vector<uint32_t> a, const std::vector<uint32_t>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Given a scripted device that answers the end packet with its end report,
// the upgrade worker ...
class UpgradeWorker : public ::testing::Test {
 protected:
  UpgradeWorker() : device_(std::make_shared<ScriptedDevice>()), admin_(std::make_unique<ScriptedBackend>(device_)) {
    device_->onWrite = [this](const Block& block) { return EndReportOn(block); };
  }
  ~UpgradeWorker() override { admin_.Shutdown(kTeardownBound); }

  bool EndReportOn(const Block& block) {
    if (IsEndPacket(block)) device_->Send(StatusText("Upgrade complete, ending update"));
    return true;
  }

  // Runs one upgrade of bundle and returns the console output.
  std::string Upgrade(const std::string& path) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(admin_.UpgradeBundleAsync(path, &progress_, &log_, false), 0);
    WaitUntilEnded();
    return testing::internal::GetCapturedStdout();
  }

  void WaitUntilEnded() {
    const auto deadline = std::chrono::steady_clock::now() + kRunLimit;
    while (admin_.IsOperationRunning() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(milliseconds(2));
    EXPECT_FALSE(admin_.IsOperationRunning()) << "the upgrade did not end in time";
  }

  std::string MakeBundle(size_t size, unsigned seed = 7) {
    const auto path = dir_ / ("bundle-" + std::to_string(size));
    test::WriteFile(path, test::RandomBytes(size, seed));
    return path.string();
  }

  TempDir dir_;
  std::shared_ptr<ScriptedDevice> device_;
  DeviceAdmin admin_;
  RecordingLog log_;
  RecordingProgress progress_;
};

TEST_F(UpgradeWorker, SendsStartTextDataPacketsAndEndPacketForA58ByteFile) {
  const std::string bytes = test::RandomBytes(58, 3);
  const auto path = dir_ / "b58";
  test::WriteFile(path, bytes);
  const std::string console = Upgrade(path.string());

  const auto written = device_->Written();
  ASSERT_EQ(written.size(), 4u);
  EXPECT_EQ(written[0], BuildRawTextBlock("Starting Upgrade 58 2"));
  Block first{};
  BuildPacket(1, 0, reinterpret_cast<const uint8_t*>(bytes.data()), 57, first.data());
  Block second{};
  BuildPacket(1, 1, reinterpret_cast<const uint8_t*>(bytes.data()) + 57, 1, second.data());
  EXPECT_EQ(written[1], first);
  EXPECT_EQ(written[2], second);
  EXPECT_EQ(written[3], BuildTextPacket(PacketType::Upgrade, "Ending Upgrade"));

  const std::vector<std::string> expectedLog = {"I found specified file - " + path.string(),
                                                "Getting File Size...Seeking to end of file.",
                                                "Success.",
                                                "Seeking to beginning of file.",
                                                "Success.",
                                                "Successful in writing 'Starting Upgrade' to device.",
                                                "Downloading Upgrade Bundle now.",
                                                "Progress: 0%%",
                                                "Progress: 50%%",
                                                "Progress: 100%%",
                                                "Download of upgrade bundle to device has completed.",
                                                "Please wait until reboot of device is done."};
  // The reader logs the end report on its own thread: its place is not fixed.
  std::vector<std::string> lines = log_.Lines();
  const auto report = std::find(lines.begin(), lines.end(), "Upgrade complete, ending update");
  ASSERT_NE(report, lines.end());
  lines.erase(report);
  EXPECT_EQ(lines, expectedLog);
  EXPECT_EQ(progress_.Reports(), std::vector<int>{10});
  EXPECT_NE(console.find("SPI SUPPORT IS TURNED ON!\n"), std::string::npos);
  EXPECT_NE(console.find("\n-------------------------------------------\nFile Size = 58\nPacket Count = 2\n"
                         "I am done with the reader thread.\n"),
            std::string::npos);
}

TEST_F(UpgradeWorker, LogsOnlyChangedPercentagesForAManyPacketFile) {
  Upgrade(MakeBundle(57 * 1000 + 5));
  int progressLines = 0;
  for (const auto& line : log_.Lines()) progressLines += line.rfind("Progress: ", 0) == 0;
  EXPECT_EQ(progressLines, 101);
  EXPECT_EQ(DataNumbers(device_->Written()), Range(0, 1000));
}

TEST_F(UpgradeWorker, WritesNothingWhenTheFileIsMissing) {
  // The console reporter's second pass turns the doubled sign back into one.
  const std::string missing = (dir_ / "no such 100% bundle").string();
  Upgrade(missing);
  EXPECT_TRUE(device_->Written().empty());
  EXPECT_EQ(log_.Lines(), std::vector<std::string>{"Error: Can not find specified file - " +
                                                   (dir_ / "no such 100%% bundle").string()});
}

TEST_F(UpgradeWorker, GivesUpOnAPacketAfterTheRetryBound) {
  device_->onWrite = [](const Block& block) { return !IsDataPacket(block, 2); };
  const std::string console = Upgrade(MakeBundle(57 * 5));
  EXPECT_EQ(DataNumbers(device_->Written()), Joined({0, 1}, std::vector<uint32_t>(limits::kMaxWriteRetries, 2)));
  size_t retries = 0;
  for (size_t at = console.find("A write retry was detected!\n"); at != std::string::npos;
       at = console.find("A write retry was detected!\n", at + 1))
    ++retries;
  EXPECT_EQ(retries, static_cast<size_t>(limits::kMaxWriteRetries));
  EXPECT_TRUE(log_.Has("Error: Packet 2 could not be written after 20 attempts. Upgrading is stopped."));
  EXPECT_FALSE(device_->Written().empty() && IsEndPacket(device_->Written().back()));
}

TEST_F(UpgradeWorker, RetriesAFailedWriteOfTheSamePacket) {
  bool failedOnce = false;
  device_->onWrite = [&](const Block& block) {
    if (IsDataPacket(block, 1) && !failedOnce) return !(failedOnce = true);
    return EndReportOn(block);
  };
  const std::string console = Upgrade(MakeBundle(57 * 3));
  EXPECT_EQ(DataNumbers(device_->Written()), (std::vector<uint32_t>{0, 1, 1, 2}));
  EXPECT_NE(console.find("A write retry was detected!\n"), std::string::npos);
  EXPECT_TRUE(log_.Has("Please wait until reboot of device is done."));
}

// Given a NACK delivered while a chosen packet is written, the worker ...
class UpgradeWorkerNacks : public UpgradeWorker {
 protected:
  // Delivers the NACKs (each handled by the reader before the write
  // completes) when data packet `at` is first written.
  void NackWhileWriting(uint32_t at, std::vector<uint32_t> numbers) {
    device_->onWrite = [this, at, numbers, done = false](const Block& block) mutable {
      if (!done && IsDataPacket(block, at)) {
        done = true;
        for (uint32_t n : numbers) EXPECT_TRUE(device_->SendAndWaitHandled(Nack(n)));
      }
      return EndReportOn(block);
    };
  }
};

TEST_F(UpgradeWorkerNacks, GoesBackToAnEarlierPacketAndSendsOnInOrder) {
  const std::string bytes = test::RandomBytes(57 * 20, 5);
  const auto path = dir_ / "b20";
  test::WriteFile(path, bytes);
  NackWhileWriting(10, {3});
  const std::string console = Upgrade(path.string());

  EXPECT_EQ(DataNumbers(device_->Written()), Joined(Range(0, 10), Range(3, 19)));
  EXPECT_NE(console.find("Resending NACK packet, packet No : 3\n"), std::string::npos);
  Block packet3{};
  BuildPacket(1, 3, reinterpret_cast<const uint8_t*>(bytes.data()) + 3 * 57, 57, packet3.data());
  EXPECT_TRUE(log_.Has("Write data :" + BytesToHex(packet3.data(), 64)));
  // The percentage drops back with the rewind and is reported again.
  const auto lines = log_.Lines();
  const auto p50 = std::find(lines.begin(), lines.end(), "Progress: 50%%");
  ASSERT_NE(p50, lines.end());
  EXPECT_NE(std::find(p50, lines.end(), "Progress: 15%%"), lines.end());
}

TEST_F(UpgradeWorkerNacks, ActsOnANackForTheNextPacketOnlyOnceItIsPassed) {
  NackWhileWriting(4, {5});
  Upgrade(MakeBundle(57 * 10));
  EXPECT_EQ(DataNumbers(device_->Written()), Joined(Range(0, 5), Range(5, 9)));
}

TEST_F(UpgradeWorkerNacks, IgnoresANackAtOrBeyondThePacketCount) {
  NackWhileWriting(2, {10});
  const std::string console = Upgrade(MakeBundle(57 * 10));
  EXPECT_EQ(DataNumbers(device_->Written()), Range(0, 9));
  EXPECT_EQ(console.find("Resending NACK packet"), std::string::npos);
}

TEST_F(UpgradeWorkerNacks, ActsOnlyOnTheLaterOfTwoNacksWithinOneStep) {
  NackWhileWriting(8, {2, 4});
  const std::string console = Upgrade(MakeBundle(57 * 10));
  EXPECT_EQ(DataNumbers(device_->Written()), Joined(Range(0, 8), Range(4, 9)));
  EXPECT_EQ(console.find("packet No : 2"), std::string::npos);
}

// Given a device that never sends its end report, the worker ...
class UpgradeWorkerWithoutEndReport : public UpgradeWorker {
 protected:
  UpgradeWorkerWithoutEndReport() {
    device_->onWrite = [](const Block&) { return true; };
  }
};

TEST_F(UpgradeWorkerWithoutEndReport, EndsItsWaitAtOnceOnACancel) {
  testing::internal::CaptureStdout();
  ASSERT_EQ(admin_.UpgradeBundleAsync(MakeBundle(57 * 4), &progress_, &log_, false), 0);
  const auto deadline = std::chrono::steady_clock::now() + kRunLimit;
  while (!log_.Has("Download of upgrade bundle to device has completed.") &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(milliseconds(2));
  const auto start = std::chrono::steady_clock::now();
  admin_.CancelOperation(&log_);
  const auto took = std::chrono::steady_clock::now() - start;
  const std::string console = testing::internal::GetCapturedStdout();
  EXPECT_LT(took, milliseconds(2000));
  EXPECT_NE(console.find("Packet Count = 4\nUpgrading is aborted.\nCancel Operation has succeeded.\n"),
            std::string::npos);
  const auto written = device_->Written();
  ASSERT_FALSE(written.empty());
  EXPECT_EQ(written.back(), BuildTextPacket(PacketType::Cancel, "Cancel"));
}

}  // namespace
}  // namespace ferrolt
