#include "devsim/usbdevfs/SysfsRecord.h"

#include <cstdio>

#include "devsim/DevicePackets.h"

namespace ferrolt::devsim {
namespace {

// usbfs device nodes: character major 189, 128 addresses a bus.
constexpr int kUsbDeviceMajor = 189;
constexpr int kAddressesPerBus = 128;

const char* SysfsSpeed(UsbSpeed speed) {
  switch (speed) {
    case UsbSpeed::Low:
      return "1.5";
    case UsbSpeed::Full:
      return "12";
    case UsbSpeed::High:
      break;
  }
  return "480";
}

std::string Hex(const std::vector<uint8_t>& bytes) { return HexOf(bytes.data(), bytes.size()); }

std::string Format(const char* format, int first, int second = 0) {
  char text[64];
  std::snprintf(text, sizeof text, format, first, second);
  return text;
}

}  // namespace

std::string DeviceNodeOf(const UsbAddress& address) {
  return Format("/dev/bus/usb/%03d/%03d", address.bus, address.device);
}

std::string SysfsPathOf(const UsbAddress& address) {
  return Format("/sys/devices/usb%d/%d-", address.bus, address.bus) + std::to_string(address.device);
}

std::string SysfsRecordOf(const UsbDeviceModel& model, const UsbAddress& address) {
  const std::string node = DeviceNodeOf(address);
  const int minor = (address.bus - 1) * kAddressesPerBus + (address.device - 1);
  std::string record;
  record += "P: " + SysfsPathOf(address).substr(std::string("/sys").size()) + "\n";
  record += "N: " + node.substr(std::string("/dev/").size()) + "\n";
  record += "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\n";
  record += Format("E: BUSNUM=%03d\nE: DEVNUM=%03d\n", address.bus, address.device);
  record += "E: DEVNAME=" + node + "\n";
  record += Format("A: busnum=%d\\n\nA: devnum=%d\\n\n", address.bus, address.device);
  record += Format("A: idVendor=%04x\\n\nA: idProduct=%04x\\n\n", model.vendorId, model.productId);
  record += std::string("A: speed=") + SysfsSpeed(model.speed) + "\\n\n";
  record += "A: serial=" + model.serial + "\\n\n";
  record += Format("A: bConfigurationValue=%d\\n\n", kConfigurationValue);
  record += Format("A: dev=%d:%d\\n\n", kUsbDeviceMajor, minor);
  record += "H: descriptors=" + Hex(DescriptorsOf(model)) + "\n";
  return record;
}

}  // namespace ferrolt::devsim
