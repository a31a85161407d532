// The device of ferrolt-devsim as a USB device on an emulated bus: a umockdev
// testbed holding the device's sysfs entries and node, and the usbdevfs
// handler that puts the device logic behind that node. The tool reaches it
// through its libusb backend, unchanged, with the umockdev preload library.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "devsim/Device.h"
#include "tests/support/DeviceUnderTest.h"
#include "tests/support/TestSupport.h"
#include "tests/usb/UmockdevTestbed.h"
#include "tests/usb/UsbDeviceModel.h"
#include "tests/usb/UsbdevfsDevice.h"

namespace ferrolt::test::usb {

struct UsbDeviceOptions {
  // ferrolt-devsim's own options: faults, seed, version, and what its hello
  // announces (ids, interface, speed, state), which here shape the device.
  std::vector<std::string> devsimArgs;
  fs::path root;  // empty: a fresh folder
  UsbFaults faults;
};

class EmulatedUsbDevice final : public DeviceUnderTest {
 public:
  explicit EmulatedUsbDevice(const UsbDeviceOptions& options = {});
  ~EmulatedUsbDevice() override;
  EmulatedUsbDevice(const EmulatedUsbDevice&) = delete;
  EmulatedUsbDevice& operator=(const EmulatedUsbDevice&) = delete;

  bool Running() const override { return error_.empty(); }
  // Why the device could not be set up.
  const std::string& Error() const { return error_; }
  ToolEnvironment Environment() const override { return testbed_.Environment(); }
  const fs::path& Root() const override { return root_; }
  std::vector<Block> Received() const override;
  std::string Events() const override;
  // Unplugs the device for good.
  void Stop() override;

  // The cable is pulled: transfers in flight fail, the device's node and
  // sysfs entries go, and programs watching for hotplug are told (when this
  // process runs with the preload library, as usb_tests does).
  void Unplug();
  // Plugged in again, at the next free address, as the bus would number it.
  bool Replug();
  UsbdevfsDevice& Usb() { return *usb_; }

 private:
  bool Plug();

  TempDir dir_;
  fs::path root_;
  fs::path record_;
  fs::path events_;
  UsbDeviceModel model_;
  UsbAddress address_;
  bool plugged_ = false;
  std::string error_;
  std::unique_ptr<devsim::Device> device_;
  std::unique_ptr<UsbdevfsDevice> usb_;
  // Destroyed first: its worker thread is the one that calls the handler.
  UmockdevTestbed testbed_;
};

// A testbed with nothing plugged in: where the tool finds no device.
class EmptyUsbBus final : public DeviceUnderTest {
 public:
  bool Running() const override { return true; }
  ToolEnvironment Environment() const override { return testbed_.Environment(); }
  const fs::path& Root() const override { return root_; }
  std::vector<Block> Received() const override { return {}; }
  std::string Events() const override { return {}; }
  void Stop() override {}

 private:
  fs::path root_;
  UmockdevTestbed testbed_;
};

}  // namespace ferrolt::test::usb
