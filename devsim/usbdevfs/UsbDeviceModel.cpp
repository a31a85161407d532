#include "devsim/usbdevfs/UsbDeviceModel.h"

#include <cstdio>

#include "devsim/DevicePackets.h"

namespace ferrolt::devsim {
namespace {

constexpr uint8_t kDeviceDescriptorType = 1;
constexpr uint8_t kConfigDescriptorType = 2;
constexpr uint8_t kInterfaceDescriptorType = 4;
constexpr uint8_t kEndpointDescriptorType = 5;
constexpr uint8_t kDeviceDescriptorLength = 18;
constexpr uint8_t kConfigDescriptorLength = 9;
constexpr uint8_t kInterfaceDescriptorLength = 9;
constexpr uint8_t kEndpointDescriptorLength = 7;
constexpr uint16_t kUsb2 = 0x0200;
constexpr uint16_t kDeviceRelease = 0x0100;
constexpr uint8_t kControlPacketSize = 64;
constexpr uint8_t kConfigurationValue = 1;
constexpr uint8_t kBusPowered = 0x80;
constexpr uint8_t kMaxPowerIn2mA = 50;
constexpr uint8_t kVendorSpecificClass = 0xFF;
constexpr uint8_t kBulkTransferType = 2;
constexpr uint16_t kFullSpeedBulkPacket = 64;
constexpr uint16_t kHighSpeedBulkPacket = 512;
// usbfs device nodes: character major 189, 128 addresses a bus.
constexpr int kUsbDeviceMajor = 189;
constexpr int kAddressesPerBus = 128;

void AppendU16(std::vector<uint8_t>& bytes, uint16_t value) {
  bytes.push_back(static_cast<uint8_t>(value & 0xFF));
  bytes.push_back(static_cast<uint8_t>(value >> 8));
}

void AppendDeviceDescriptor(const UsbDeviceModel& model, std::vector<uint8_t>& bytes) {
  bytes.insert(bytes.end(), {kDeviceDescriptorLength, kDeviceDescriptorType});
  AppendU16(bytes, kUsb2);
  bytes.insert(bytes.end(), {0, 0, 0, kControlPacketSize});
  AppendU16(bytes, model.vendorId);
  AppendU16(bytes, model.productId);
  AppendU16(bytes, kDeviceRelease);
  bytes.insert(bytes.end(), {0, 0, 0, 1});
}

void AppendEndpoint(uint8_t address, uint16_t packetSize, std::vector<uint8_t>& bytes) {
  bytes.insert(bytes.end(), {kEndpointDescriptorLength, kEndpointDescriptorType, address, kBulkTransferType});
  AppendU16(bytes, packetSize);
  bytes.push_back(0);
}

void AppendInterfaces(const UsbDeviceModel& model, std::vector<uint8_t>& bytes) {
  for (uint8_t number = 0; number < model.interfaceCount; ++number) {
    const bool bulk = number == model.bulkInterface && model.bulkEndpoints;
    const uint8_t endpoints = bulk ? 2 : 0;
    bytes.insert(bytes.end(), {kInterfaceDescriptorLength, kInterfaceDescriptorType, number, 0, endpoints,
                               kVendorSpecificClass, 0, 0, 0});
    if (!bulk) continue;
    AppendEndpoint(kBulkOutEndpoint, BulkPacketSizeOf(model.speed), bytes);
    AppendEndpoint(kBulkInEndpoint, BulkPacketSizeOf(model.speed), bytes);
  }
}

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

uint16_t BulkPacketSizeOf(UsbSpeed speed) {
  return speed == UsbSpeed::High ? kHighSpeedBulkPacket : kFullSpeedBulkPacket;
}

std::vector<uint8_t> DescriptorsOf(const UsbDeviceModel& model) {
  std::vector<uint8_t> bytes;
  AppendDeviceDescriptor(model, bytes);
  std::vector<uint8_t> interfaces;
  AppendInterfaces(model, interfaces);
  bytes.insert(bytes.end(), {kConfigDescriptorLength, kConfigDescriptorType});
  AppendU16(bytes, static_cast<uint16_t>(kConfigDescriptorLength + interfaces.size()));
  bytes.insert(bytes.end(), {model.interfaceCount, kConfigurationValue, 0, kBusPowered, kMaxPowerIn2mA});
  bytes.insert(bytes.end(), interfaces.begin(), interfaces.end());
  return bytes;
}

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
  record += Format("A: bConfigurationValue=%d\\n\n", kConfigurationValue);
  record += Format("A: dev=%d:%d\\n\n", kUsbDeviceMajor, minor);
  record += "H: descriptors=" + Hex(DescriptorsOf(model)) + "\n";
  return record;
}

}  // namespace ferrolt::devsim
