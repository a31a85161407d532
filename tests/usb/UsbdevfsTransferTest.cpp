// The transfer contract over the libusb backend, in this process, with
// ferrolt-devsim's usbdevfs model at the far end of the emulated bus.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/libusb/LibusbBackend.h"
#include "tests/link/TransferContract.h"
#include "tests/usb/EmulatedUsbDevice.h"

namespace ferrolt::test::usb {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kArrival{2000};
// What the model did reaches libusb through its event thread: the contract's
// calls wait 5 ms at least, so they start once it has.
constexpr milliseconds kSettle{100};
constexpr milliseconds kPoll{10};

class UsbdevfsPeer : public ContractPeer {
 public:
  UsbdevfsPeer() { EXPECT_TRUE(device_.Running()) << device_.Error(); }
  platform::DeviceBackend& Backend() override { return *backend_; }
  void Stall() override { device_.Usb().HoldOut(true); }
  bool FailWrites() override {
    device_.Usb().HaltOut();
    return true;
  }
  void Send(const Block& block) override {
    device_.Usb().SendIn(block);
    std::this_thread::sleep_for(kSettle);
  }
  // The model's IN packets hold whole blocks; a zero-length packet comes
  // only after a full one (UsbFaults::zeroLengthAfterFullPacket).
  bool SendShortPackets() override { return false; }
  // The cable pulled as the open handle sees it (URBs end, ioctls fail with
  // ENODEV); the hotplug event is left out: libudev, which sends it, and
  // libusb's udev monitor must not share this process (ThreadSanitizer sees
  // them race inside libudev).
  void Unplug() override {
    device_.Usb().Unplug();
    std::this_thread::sleep_for(kSettle);
  }
  std::vector<Block> Taken(size_t count) override {
    const auto deadline = std::chrono::steady_clock::now() + kArrival;
    std::vector<Block> taken = device_.Received();
    while (taken.size() < count && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(kPoll);
      taken = device_.Received();
    }
    return taken;
  }

 private:
  EmulatedUsbDevice device_;
  const std::unique_ptr<platform::DeviceBackend> backend_ = platform::CreateLibusbBackend();
};

}  // namespace

FERROLT_TRANSFER_CONTRACT(Usbdevfs, (PeerMaker{"usbdevfs", [] { return std::make_unique<UsbdevfsPeer>(); }}));

}  // namespace ferrolt::test::usb
