// ferrolt-devsim's USB front as a device under test: the device on an
// emulated bus, its folder, record and event log in a temporary folder. The
// tool reaches it through its libusb backend, unchanged, with the umockdev
// preload library.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "devsim/usbdevfs/UsbBusDevice.h"
#include "tests/support/DeviceUnderTest.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::test::usb {

struct UsbDeviceOptions {
  // ferrolt-devsim's own options: faults, seed, version, and what its hello
  // announces (ids, interface, speed, state), which here shape the device.
  std::vector<std::string> devsimArgs;
  fs::path root;  // empty: a fresh folder
  devsim::UsbFaults faults;
};

class EmulatedUsbDevice final : public DeviceUnderTest {
 public:
  explicit EmulatedUsbDevice(const UsbDeviceOptions& options = {});

  bool Running() const override { return bus_ != nullptr && bus_->Running(); }
  // Why the device could not be set up.
  const std::string& Error() const { return bus_ != nullptr ? bus_->Error() : error_; }
  ToolEnvironment Environment() const override;
  const fs::path& Root() const override { return root_; }
  std::vector<Block> Received() const override { return ReadBlocks(dir_ / "received.bin"); }
  std::string Events() const override { return ReadFile(dir_ / "events.log"); }
  // Unplugs the device for good.
  void Stop() override {
    if (bus_ != nullptr) bus_->Unplug();
  }

  // One more device on this bus with the same ids and another serial number;
  // its folder, record and event log in dir (a folder, received.bin, events.log).
  bool PlugAnother(const fs::path& dir, const std::string& serial);

  void Unplug() { bus_->Unplug(); }
  bool Replug() { return bus_->Replug(); }
  devsim::UsbdevfsDevice& Usb() { return bus_->Usb(); }

 private:
  TempDir dir_;
  fs::path root_;
  std::string error_;
  std::unique_ptr<devsim::UsbBusDevice> bus_;
};

// A testbed with nothing plugged in: where the tool finds no device.
class EmptyUsbBus final : public DeviceUnderTest {
 public:
  bool Running() const override { return true; }
  ToolEnvironment Environment() const override;
  const fs::path& Root() const override { return root_; }
  std::vector<Block> Received() const override { return {}; }
  std::string Events() const override { return {}; }
  void Stop() override {}

 private:
  fs::path root_;
  devsim::UmockdevTestbed testbed_;
};

}  // namespace ferrolt::test::usb
