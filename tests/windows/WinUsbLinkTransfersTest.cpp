// The link over the WinUSB backend, with SetupAPI and the driver played by the
// stand-in: discovery in each layout a driver package can give the device,
// the transfer contract with real Win32 events set by the stand-in's
// completions, and what only WinUSB does: withdrawn writes, a halted
// endpoint, packets of several blocks, an abort crossing a completion.
#include <gtest/gtest.h>

#include <chrono>
#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/UsbLink.h"
#include "platform/UsbInterfacePath.h"
#include "platform/winusb/WinUsbBackend.h"
#include "tests/link/LinkFixture.h"
#include "tests/link/TransferContract.h"
#include "tests/support/ClockSlack.h"
#include "tests/support/RecordingCallbacks.h"
#include "tests/windows/WinUsbStandIn.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;

// Generous bounds around the fixed waits: they check that a wait happened
// and ended, not how fast the machine is.
constexpr milliseconds kWriteWaitFloor{450};
constexpr milliseconds kSlack{1500};
constexpr milliseconds kDeviceWait{5000};
// Longer than the write wait: no write still to come is missed.
constexpr milliseconds kQuiet{1000};
constexpr milliseconds kDeviceAsleep{1500};

std::unique_ptr<platform::DeviceBackend> StandInBackend() {
  return platform::CreateWinUsbBackend(StandInWinUsbApi(), StandInSetupApi());
}

// The stand-in device at the contract's far end: a thread takes the host's
// blocks as a device does, until stalled.
class StandInPeer : public ContractPeer {
 public:
  StandInPeer() : taker_([this] { Take(); }) {}
  ~StandInPeer() override { StopTaking(); }
  platform::DeviceBackend& Backend() override { return *backend_; }
  // Waits for a take under way: the device takes nothing once stalled.
  void Stall() override {
    std::lock_guard<std::mutex> lock(takeMutex_);
    stalled_ = true;
  }
  bool FailWrites() override {
    device_->HaltOut();
    return true;
  }
  void Send(const Block& block) override { device_->SendBlock(block); }
  bool SendShortPackets() override {
    device_->SendPacket({});
    device_->SendPacket(StandInPacket(kShortPacket, 0xEE));
    return true;
  }
  void Unplug() override {
    StopTaking();
    device_.reset();
  }
  std::vector<Block> Taken(size_t count) override {
    std::unique_lock<std::mutex> lock(mutex_);
    tookOne_.wait_for(lock, kDeviceWait, [&] { return taken_.size() >= count; });
    return taken_;
  }

 private:
  static constexpr size_t kShortPacket = 13;
  static constexpr milliseconds kTakeSlice{20};

  void Take() {
    while (!stop_) {
      StandInBlock block{};
      std::unique_lock<std::mutex> taking(takeMutex_);
      const bool stalled = stalled_;
      const bool took = !stalled && device_->TakeBlock(block, kTakeSlice);
      taking.unlock();
      if (stalled) std::this_thread::sleep_for(kTakeSlice);
      if (!took) continue;
      std::lock_guard<std::mutex> lock(mutex_);
      taken_.push_back(block);
      tookOne_.notify_all();
    }
  }
  void StopTaking() {
    stop_ = true;
    if (taker_.joinable()) taker_.join();
  }

  std::optional<StandInDevice> device_{std::in_place};
  const std::unique_ptr<platform::DeviceBackend> backend_ = StandInBackend();
  std::mutex takeMutex_;
  bool stalled_ = false;  // guarded by takeMutex_
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::condition_variable tookOne_;
  std::vector<Block> taken_;
  std::thread taker_;  // last: it starts once the rest is built
};

FERROLT_TRANSFER_CONTRACT(WinUsb, (PeerMaker{"winusb", [] { return std::make_unique<StandInPeer>(); }}));

struct DiscoveryCase {
  const char* name;
  StandInLayout layout;
  StandInSpeed speed;
  const char* console;
};

// Given a device listed as a driver package may list it, the link finds and
// opens its vendor interface, and prints the speed line only for high speed.
class WinUsbDiscoveryTest : public ::testing::TestWithParam<DiscoveryCase> {};

TEST_P(WinUsbDiscoveryTest, OpensTheVendorInterfaceWhereverItIsListed) {
  const DiscoveryCase& row = GetParam();
  const StandInDevice device(row.layout, row.speed);
  const auto backend = StandInBackend();
  platform::Event cancel;
  UsbLink link{*backend, cancel};
  RecordingLog log;

  ::testing::internal::CaptureStdout();
  const bool opened = link.ConnectDevice(kProductId, kVendorId, &log);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), row.console);
  ASSERT_TRUE(opened);
  EXPECT_TRUE(platform::SamePath(link.DevicePathText(), device.InterfacePath()));
  EXPECT_EQ(link.BulkOutPipeId(), kStandInOutPipe);
  EXPECT_EQ(link.BulkInPipeId(), kStandInInPipe);
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, WinUsbDiscoveryTest,
    ::testing::Values(DiscoveryCase{"WithTheUsbDevices", StandInLayout::WithTheUsbDevices, StandInSpeed::High,
                                    "Device speed: 3 (High speed).\n"},
                      DiscoveryCase{"UnderItsOwnClassesAtFullSpeed", StandInLayout::UnderItsOwnClasses,
                                    StandInSpeed::Full, ""},
                      DiscoveryCase{"UnderItsOwnClass", StandInLayout::UnderItsOwnClass, StandInSpeed::High,
                                    "Device speed: 3 (High speed).\n"}),
    [](const auto& info) { return std::string(info.param.name); });

// Given a link opened on the stand-in device.
class WinUsbLinkTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Connect()); }

  bool Connect() {
    ::testing::internal::CaptureStdout();
    const bool opened = link.ConnectDevice(kProductId, kVendorId, &log);
    ::testing::internal::GetCapturedStdout();
    return opened;
  }
  void Reopen() {
    link.CloseDevice();
    ASSERT_TRUE(Connect());
  }

  TransferStatus Write(const Block& block) { return link.WritePacket(block.data(), 64, &log); }
  TransferStatus Read(uint32_t* bytes) {
    *bytes = 0;
    return link.ReadPacket(buffer.data(), 64, &log, bytes);
  }
  // The oldest block the host wrote, which completes that write.
  StandInBlock Taken() {
    StandInBlock block{};
    EXPECT_TRUE(device.TakeBlock(block, kDeviceWait));
    return block;
  }

  StandInDevice device;
  const std::unique_ptr<platform::DeviceBackend> backend = StandInBackend();
  platform::Event cancel;
  UsbLink link{*backend, cancel};
  RecordingLog log;
  Block buffer{};
  const Block packet = BuildTextPacket(PacketType::Version, "Version Retrieval");
};

// A device that takes nothing for a while as the link writes and retries:
// each write whose wait ran out is withdrawn, so no copy is left queued for
// the device to take when it recovers.
TEST_F(WinUsbLinkTest, WriteWhoseWaitRunsOutIsWithdrawnAndEachBlockArrivesOnce) {
  constexpr uint8_t kBlocks = 3;
  constexpr int kAttempts = 10;
  TransferStatus first{};
  const milliseconds took = Timed([&] { first = Write(NumberedBlock(1)); });
  EXPECT_EQ(first, TransferStatus::TimedOut);
  EXPECT_GE(took, AtLeast(kWriteWaitFloor));
  EXPECT_LT(took, kWriteWaitFloor + kSlack);

  auto writer = std::async(std::launch::async, [&] {
    for (uint8_t n = 1; n <= kBlocks; ++n)
      for (int attempt = 0; attempt < kAttempts && Write(NumberedBlock(n)) != TransferStatus::Done; ++attempt) {
      }
  });
  std::this_thread::sleep_for(kDeviceAsleep - took);
  std::vector<StandInBlock> received;
  for (StandInBlock block{}; device.TakeBlock(block, kQuiet);) received.push_back(block);
  writer.get();
  EXPECT_EQ(received, (std::vector<StandInBlock>{NumberedBlock(1), NumberedBlock(2), NumberedBlock(3)}));
  EXPECT_TRUE(log.Lines().empty());
}

// The halt is the device's: it outlives the handle, and the write after the
// one that found it gets through, once.
TEST_F(WinUsbLinkTest, StalledWriteFailsAndTheNextGetsThroughOnce) {
  device.HaltOut();
  Reopen();
  EXPECT_EQ(Write(packet), TransferStatus::Failed);
  auto next = std::async(std::launch::async, [&] { return Write(packet); });
  EXPECT_EQ(Taken(), packet);
  EXPECT_EQ(next.get(), TransferStatus::Done);
  StandInBlock extra{};
  EXPECT_FALSE(device.TakeBlock(extra, kQuiet));
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Failed to write to the bulk interface"});
}

// Two blocks in one packet (a high-speed endpoint takes 512 bytes): each is
// read once, and the rest of a packet waits for the next read.
TEST_F(WinUsbLinkTest, APacketOfTwoBlocksGivesTwoReads) {
  const StandInBlock second = NumberedBlock(2);
  const StandInBlock third = NumberedBlock(3);
  StandInPacket two(second.begin(), second.end());
  two.insert(two.end(), third.begin(), third.end());
  device.SendPacket(two);
  device.SendBlock(NumberedBlock(4));

  uint32_t bytes = 0;
  for (const Block& expected : {second, third, NumberedBlock(4)}) {
    EXPECT_EQ(Read(&bytes), TransferStatus::Done);
    EXPECT_EQ(bytes, 64u);
    EXPECT_EQ(buffer, expected);
  }
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  EXPECT_TRUE(log.Lines().empty());
}

// Blocks the device queued for a link that closed without reading them,
// reopened as an operation starts.
TEST_F(WinUsbLinkTest, BlocksLeftFromAClosedLinkDoNotReachTheNextOpen) {
  device.SendBlock(NumberedBlock(1));
  device.SendBlock(NumberedBlock(2));
  link.DrainAtNextOpen();
  Reopen();
  device.SendBlock(NumberedBlock(3));
  uint32_t bytes = 0;
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(3));
}

// Given transfers whose bytes moved but whose completion was not reported
// when their pipe was aborted: each fails as aborted, with its bytes.
TEST(WinUsbConnectionTest, AbortCrossingACompletionKeepsTheBytes) {
  StandInDevice device;
  const auto backend = StandInBackend();
  const auto connection = backend->Open(device.InterfacePath());
  ASSERT_TRUE(connection != nullptr && connection->Initialize());
  const StandInBlock block = NumberedBlock(7);
  const auto read = connection->StartRead(kStandInInPipe, 64);
  device.SendBlock(block, Report::OnAbort);
  const auto write = connection->StartWrite(kStandInOutPipe, block.data(), 64);
  StandInBlock taken{};
  ASSERT_TRUE(device.TakeBlock(taken, kDeviceWait, Report::OnAbort));

  for (const auto& transfer : {read, write}) {
    ASSERT_NE(transfer, nullptr);
    EXPECT_FALSE(transfer->IsComplete());
    EXPECT_TRUE(connection->Abort(*transfer));
    ASSERT_TRUE(transfer->Completion().WaitFor(kDeviceWait));
    EXPECT_FALSE(transfer->Succeeded());
    EXPECT_EQ(transfer->BytesTransferred(), 64u);
  }
  StandInBlock received{};
  EXPECT_EQ(read->CopyData(received.data(), 64), 64u);
  EXPECT_EQ(received, block);
  EXPECT_EQ(taken, block);
}

}  // namespace
}  // namespace ferrolt::test
