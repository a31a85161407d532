// The link's transfers over the WinUSB backend, with the driver played by the
// named-pipe stand-in: real overlapped I/O, completion events set by the
// system, WaitForMultipleObjects with the cancel event first. What the link
// decides alone (the closed link's waits, a cancel during a stalled write, a
// cancelled read) is tested over the in-memory device in tests/link, which
// runs here too.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/UsbLink.h"
#include "platform/UsbInterfacePath.h"
#include "platform/winusb/WinUsbBackend.h"
#include "tests/link/LinkFixture.h"
#include "tests/support/RecordingCallbacks.h"
#include "tests/windows/WinUsbStandIn.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;

// Generous bounds around the fixed waits: they check that a wait happened
// and ended, not how fast the machine is.
constexpr milliseconds kWriteWaitFloor{450};
constexpr milliseconds kReadWaitFloor{4};
constexpr milliseconds kSlack{1500};
constexpr milliseconds kFast{250};
constexpr milliseconds kDeviceWait{5000};

StandInBlock NumberedBlock(uint8_t first) {
  StandInBlock block{};
  for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(first + i);
  return block;
}

// Lists the stand-in as the device's vendor interface and opens its pipe
// through the WinUSB backend, so the link runs unchanged on top of it.
class StandInBackend : public platform::DeviceBackend {
 public:
  explicit StandInBackend(const StandInDevice& device) : device_(device) {}

  platform::InterfaceListing ListInterfaces() override {
    platform::InterfaceListing listing;
    listing.listed = true;
    listing.paths.push_back(platform::FormatInterfacePath(
        {static_cast<uint16_t>(kVendorId), static_cast<uint16_t>(kProductId), kVendorInterface}, "STANDIN"));
    return listing;
  }

  std::unique_ptr<platform::DeviceConnection> Open(const std::string&) override {
    return winUsb_->Open(device_.Path());
  }

 private:
  const StandInDevice& device_;
  std::unique_ptr<platform::DeviceBackend> winUsb_ = platform::CreateWinUsbBackend(StandInWinUsbApi());
};

// Given a link opened on the stand-in device.
class WinUsbLinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::testing::internal::CaptureStdout();
    const bool opened = link.ConnectDevice(kProductId, kVendorId, &log);
    speedLine = ::testing::internal::GetCapturedStdout();
    ASSERT_TRUE(opened);
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
  StandInBackend backend{device};
  platform::Event cancel;
  UsbLink link{backend, cancel};
  RecordingLog log;
  std::string speedLine;
  Block buffer{};
  const Block packet = BuildTextPacket(PacketType::Version, "Version Retrieval");
};

TEST_F(WinUsbLinkTest, OpensWithTheQueriedPipesAndSpeed) {
  EXPECT_EQ(speedLine, "Device speed: 3 (High speed).\n");
  EXPECT_EQ(link.BulkOutPipeId(), kStandInOutPipe);
  EXPECT_EQ(link.BulkInPipeId(), kStandInInPipe);
}

TEST_F(WinUsbLinkTest, StalledWriteTimesOutAfterTheWriteWaitAndCompletesLateOnItsOwn) {
  TransferStatus status{};
  const milliseconds took = Timed([&] { status = Write(packet); });
  EXPECT_EQ(status, TransferStatus::TimedOut);
  EXPECT_GE(took, kWriteWaitFloor);
  EXPECT_LT(took, kWriteWaitFloor + kSlack);

  // The timed-out write is still in flight: the device takes it late, into a
  // record that is still valid, and it completes no later write.
  EXPECT_EQ(Taken(), packet);
  const Block second = BuildTextPacket(PacketType::Cli, "ls");
  EXPECT_EQ(Write(second), TransferStatus::TimedOut);
  auto third = std::async(std::launch::async, [&] { return Write(packet); });
  EXPECT_EQ(Taken(), second);
  EXPECT_EQ(Taken(), packet);
  EXPECT_EQ(third.get(), TransferStatus::Done);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(WinUsbLinkTest, CancelWinsOverAWriteTheDeviceTook) {
  cancel.Set();
  auto write = std::async(std::launch::async, [&] { return Write(packet); });
  EXPECT_EQ(Taken(), packet);
  EXPECT_EQ(write.get(), TransferStatus::Cancelled);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Operation has been Canceled"});
}

TEST_F(WinUsbLinkTest, EmptyPipeTimesOutAfterTheReadWaitAndTheLateBlockGoesToTheNextRead) {
  uint32_t bytes = 7;
  TransferStatus status{};
  const milliseconds took = Timed([&] { status = Read(&bytes); });
  EXPECT_EQ(status, TransferStatus::TimedOut);
  EXPECT_EQ(bytes, 0u);
  EXPECT_GE(took, kReadWaitFloor);
  EXPECT_LT(took, kFast);

  ASSERT_TRUE(device.SendBlock(NumberedBlock(9)));
  ASSERT_TRUE(device.SendBlock(NumberedBlock(100)));
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(bytes, 64u);
  EXPECT_EQ(buffer, NumberedBlock(9));
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(100));
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(WinUsbLinkTest, BlockingReadWaitsForTheBlockAndIgnoresTheCancel) {
  cancel.Set();
  std::thread sender([&] {
    std::this_thread::sleep_for(milliseconds(50));
    device.SendBlock(NumberedBlock(42));
  });
  EXPECT_EQ(link.ReadPacketBlocking(buffer.data(), 64, &log), 0);
  sender.join();
  EXPECT_EQ(buffer, NumberedBlock(42));
}

TEST_F(WinUsbLinkTest, FlushAndCloseAbortThePendingRead) {
  uint32_t bytes = 0;
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  link.FlushPipes();
  ASSERT_TRUE(device.SendBlock(NumberedBlock(5)));
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(5));

  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  EXPECT_LT(Timed([&] { link.CloseDevice(); }), kFast);
  EXPECT_FALSE(link.IsOpen());
}

}  // namespace
}  // namespace ferrolt::test
