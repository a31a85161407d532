// What only a USB bus does to a transfer: an endpoint that answers with a
// STALL, a device that NAKs for a while, zero-length packets, and a cable
// pulled in the middle of an upload, with and without the device coming back. The tool runs on its libusb backend, the
// device behind an emulated bus; unplug and replug reach the tool as hotplug events.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "devsim/DevicePackets.h"
#include "tests/support/EndToEnd.h"
#include "tests/support/ExpectedLines.h"
#include "tests/usb/EmulatedUsbDevice.h"

namespace ferrolt::test::usb {
namespace {

constexpr milliseconds kRunLimit{30000};
// The unplug comes as the device takes this OUT transfer: the upload's start
// text is the first, so this is data packet 38 of the file.
constexpr long long kUnplugAtOut = 40;
constexpr int32_t kFilePackets = 120;
// The tool retries a failed write after closing the link and pausing 1 s; the
// device is back well before that.
constexpr milliseconds kReplugAfter{200};
using lines::kOpened, lines::kWriteFailed;
constexpr size_t kUpgradePayload = 57;
constexpr int32_t kUpgradePackets = 30;
constexpr uint32_t kNackedPacket = 5;
// The device takes this many OUT blocks, then NAKs for the pause (several
// write waits), and stalls the first block it is offered after it.
constexpr long long kPauseAfterBlocks = 10;
constexpr const char* kPauseFor = "pause-writes-for=2500";

// How often each upgrade data packet reached the device, by packet number.
std::vector<int> UpgradeCopies(const std::vector<Block>& received) {
  std::vector<int> copies(kUpgradePackets, 0);
  for (const Block& block : received) {
    if (block[0] != devsim::kTypeUpgrade || devsim::PayloadText(block) == "Ending Upgrade") continue;
    const uint32_t number = devsim::NumberOf(block);
    if (number < copies.size()) ++copies[number];
  }
  return copies;
}

// Given a device that refuses (NAKs) OUT blocks for longer than a write wait
// and then stalls, an upgrade withdraws each write whose wait ran out,
// clears the halt only with nothing queued behind it, and every packet
// reaches the device once.
TEST(UsbFaultsTest, AnUpgradeThroughAPauseAndAStallDeliversEachPacketOnce) {
  TempDir dir;
  UsbDeviceOptions options;
  options.devsimArgs = {"--fault", "pause-writes-after=" + std::to_string(kPauseAfterBlocks), "--fault", kPauseFor};
  options.faults.stallOutAt = kPauseAfterBlocks + 1;
  EmulatedUsbDevice device(options);
  ASSERT_TRUE(device.Running()) << device.Error();
  const std::string bytes = RandomBytes(kUpgradePackets * kUpgradePayload, 7);
  WriteFile(dir / "bundle.bin", bytes);
  const ProcessResult run = RunFerrolt({"upgrade", (dir / "bundle.bin").string()}, device, dir.Path(), kRunLimit);
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_NE(run.out.find("A write retry was detected!"), std::string::npos) << run.out;
  EXPECT_TRUE(ReadFile(device.Root() / "upgrade" / "bundle.img") == bytes) << run.out;
  EXPECT_EQ(UpgradeCopies(device.Received()), std::vector<int>(kUpgradePackets, 1));
  EXPECT_EQ(device.Usb().ClearedHalts(), 1);
  EXPECT_EQ(device.Usb().ClearedHaltsWithUrbsQueued(), 0);
}

// Given a full-speed device that ends each full packet with a zero-length
// one, the empty read is no block: a NACK is acted on once, so the refused
// packet is resent once.
TEST(UsbFaultsTest, AZeroLengthPacketIsNoBlock) {
  TempDir dir;
  UsbDeviceOptions options;
  options.devsimArgs = {"--speed", "2", "--fault", "nack=" + std::to_string(kNackedPacket)};
  options.faults.zeroLengthAfterFullPacket = true;
  EmulatedUsbDevice device(options);
  ASSERT_TRUE(device.Running()) << device.Error();
  const std::string bytes = RandomBytes(kUpgradePackets * kUpgradePayload, 8);
  WriteFile(dir / "bundle.bin", bytes);
  const ProcessResult run = RunFerrolt({"upgrade", (dir / "bundle.bin").string()}, device, dir.Path(), kRunLimit);
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_TRUE(ReadFile(device.Root() / "upgrade" / "bundle.img") == bytes) << run.out;
  EXPECT_EQ(UpgradeCopies(device.Received())[kNackedPacket], 2) << run.out;
}

// Given an upload under way, the cable is pulled while a data packet is in
// flight ...
class UsbUnplugTest : public testing::Test {
 protected:
  void SetUp() override {
    UsbDeviceOptions options;
    options.faults.unplugAtOut = kUnplugAtOut;
    device_ = std::make_unique<EmulatedUsbDevice>(options);
    ASSERT_TRUE(device_->Running()) << device_->Error();
    bytes_ = RandomBytes(kFilePackets * 57 - 20, 40);
    WriteFile(dir_ / "file.bin", bytes_);
  }

  // Runs the upload; once the tool reports the write the unplug broke, takes
  // the device off the bus and, if replug, puts it back a moment later.
  ProcessResult UploadAcrossUnplug(bool replug) {
    auto run = StartFerrolt({"upload", "file.bin"}, *device_, dir_.Path());
    const bool unplugged = run->WaitForOutput(kWriteFailed, kRunLimit);
    EXPECT_TRUE(unplugged) << run->OutSoFar();
    device_->Unplug();
    if (unplugged && replug) {
      std::this_thread::sleep_for(kReplugAfter);
      EXPECT_TRUE(device_->Replug()) << device_->Error();
    }
    return run->Wait(kRunLimit);
  }

  TempDir dir_;
  std::string bytes_;
  std::unique_ptr<EmulatedUsbDevice> device_;
};

// ... and plugged in again: the tool finds it at its new address, resends the
// packet, and the device receives every block once, in order, and the file.
TEST_F(UsbUnplugTest, AReplugLetsTheUploadFinishWithEveryBlockOnce) {
  const ProcessResult run = UploadAcrossUnplug(true);
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(CountOf(run.out, kOpened), 2u) << run.out;
  const size_t failed = run.out.find(kWriteFailed);
  ASSERT_NE(failed, std::string::npos) << run.out;
  EXPECT_NE(run.out.find(kOpened, failed), std::string::npos);
  EXPECT_EQ(run.out.substr(run.out.size() - 22), "Finished File Upload!\n");
  EXPECT_TRUE(ReadFile(device_->Root() / "tmp" / "file.bin") == bytes_) << "the device's file differs";

  const auto received = device_->Received();
  ASSERT_EQ(received.size(), static_cast<size_t>(kFilePackets) + 2);
  EXPECT_EQ(devsim::RawText(received.front()).rfind("Starting upload ", 0), 0u);
  for (int32_t index = 0; index < kFilePackets; ++index) {
    EXPECT_EQ(received[index + 1][0], devsim::kTypeUpload);
    EXPECT_EQ(devsim::NumberOf(received[index + 1]), static_cast<uint32_t>(index));
  }
  EXPECT_EQ(devsim::RawText(received.back()), "Ending upload");
}

// ... and not plugged in again: the reopen finds no device, the upload ends
// with the lines of a missing device, and the device keeps no finished file.
TEST_F(UsbUnplugTest, WithoutAReplugTheUploadEndsAsForAMissingDevice) {
  const ProcessResult run = UploadAcrossUnplug(false);
  EXPECT_EQ(run.exitStatus, 0);
  const std::string tail = lines::UnpluggedForGoodTail();
  ASSERT_GE(run.out.size(), tail.size());
  EXPECT_EQ(run.out.substr(run.out.size() - tail.size()), tail) << run.out;
  EXPECT_FALSE(fs::exists(device_->Root() / "tmp" / "file.bin"));
  EXPECT_EQ(device_->Received().size(), static_cast<size_t>(kUnplugAtOut) - 1);
}

}  // namespace
}  // namespace ferrolt::test::usb
