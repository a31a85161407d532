// The device of ferrolt-devsim as a USB device on an emulated bus: a umockdev
// testbed holding the device's sysfs entries and node, and the usbdevfs
// handler that puts the device logic behind that node. A program on libusb
// reaches it unchanged when started with LD_PRELOAD=PreloadList() and
// UMOCKDEV_DIR=BusRoot(). The device's hello settings shape it: its ids, the
// interface of its bulk pair, its speed, and "no driver bound" as an
// interface no one can claim.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "devsim/Device.h"
#include "devsim/SocketServer.h"
#include "devsim/UsbDeviceModel.h"
#include "devsim/usbdevfs/SysfsRecord.h"
#include "devsim/usbdevfs/UmockdevTestbed.h"
#include "devsim/usbdevfs/UsbdevfsDevice.h"

namespace ferrolt::devsim {

class UsbBusDevice {
 public:
  UsbBusDevice(const DeviceSettings& settings, const LinkHello& hello, const UsbFaults& faults);
  ~UsbBusDevice();
  UsbBusDevice(const UsbBusDevice&) = delete;
  UsbBusDevice& operator=(const UsbBusDevice&) = delete;

  // False, with Error() saying why, when the device could not be set up.
  bool Running() const { return error_.empty(); }
  const std::string& Error() const { return error_; }
  const std::string& BusRoot() const { return testbed_.Root(); }

  // The cable is pulled: transfers in flight fail, the device's node and
  // sysfs entries go, and programs watching for hotplug are told (when this
  // process runs with the preload library).
  void Unplug();
  // Plugged in again, at the next free address, as the bus would number it.
  bool Replug();
  UsbdevfsDevice& Usb() { return *usb_; }

  // One more device with the same ids, on the same bus at a port of its own,
  // with its own folder (settings) and serial number: a host with several
  // devices attached. It stays plugged in until this object goes.
  bool PlugAnother(const DeviceSettings& settings, const std::string& serial);

 private:
  // A device beside the first one.
  struct Neighbour {
    UsbDeviceModel model;
    std::unique_ptr<Device> device;
    std::unique_ptr<UsbdevfsDevice> usb;
  };

  bool Plug();

  UsbDeviceModel model_;
  UsbAddress address_;
  bool plugged_ = false;
  std::string error_;
  std::unique_ptr<Device> device_;
  std::unique_ptr<UsbdevfsDevice> usb_;
  std::vector<std::unique_ptr<Neighbour>> neighbours_;
  // Destroyed first: its worker thread is the one that calls the handler.
  UmockdevTestbed testbed_;
};

}  // namespace ferrolt::devsim
