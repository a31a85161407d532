// What the device shows on a USB bus: its ids, its speed, its interfaces and
// their bulk endpoints, and the descriptors a host reads from it.
// ferrolt-devsim's USB fronts (usbdevfs, usbredir) present the emulated device
// from this, and every capture opens with the same descriptors.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ferrolt::capture {

// Descriptor types of the two descriptors a host reads first.
inline constexpr uint8_t kDeviceDescriptorType = 1;
inline constexpr uint8_t kConfigDescriptorType = 2;

inline constexpr uint8_t kBulkOutEndpoint = 0x01;
inline constexpr uint8_t kBulkInEndpoint = 0x81;
inline constexpr uint8_t kVendorInterface = 4;
inline constexpr uint8_t kConfigurationValue = 1;
// bRequest of the vendor request that reads the Microsoft OS 2.0 descriptor
// set; the BOS descriptor announces it.
inline constexpr uint8_t kMsOsVendorCode = 0x20;

// Speeds as sysfs writes them, in Mbit/s.
enum class UsbSpeed { Low, Full, High };

struct UsbDeviceModel {
  uint16_t vendorId = FERROLT_VENDOR_ID;
  uint16_t productId = FERROLT_PRODUCT_ID;
  UsbSpeed speed = UsbSpeed::High;
  // Interfaces 0 to interfaceCount - 1; the bulk pair sits on bulkInterface.
  uint8_t interfaceCount = kVendorInterface + 1;
  uint8_t bulkInterface = kVendorInterface;
  // False: the bulk interface has no endpoints at all.
  bool bulkEndpoints = true;
  uint8_t bulkOutEndpoint = kBulkOutEndpoint;
  uint8_t bulkInEndpoint = kBulkInEndpoint;
  // The serial number string: what tells devices with the same ids apart.
  std::string serial = "DEVSIM0001";
};

// wMaxPacketSize of the bulk endpoints: 512 at high speed, 64 below (USB 2.0
// allows bulk no larger at full speed).
uint16_t BulkPacketSizeOf(UsbSpeed speed);

std::vector<uint8_t> DeviceDescriptorOf(const UsbDeviceModel& model);
// The one configuration with all its interface and endpoint descriptors.
std::vector<uint8_t> ConfigDescriptorOf(const UsbDeviceModel& model);
// The device descriptor followed by the configuration, as sysfs
// "descriptors" holds them.
std::vector<uint8_t> DescriptorsOf(const UsbDeviceModel& model);
// String descriptor index (0: the language list); none for an unknown index.
std::optional<std::vector<uint8_t>> StringDescriptorOf(const UsbDeviceModel& model, uint8_t index);
// The device qualifier: only a high-speed device has one.
std::optional<std::vector<uint8_t>> DeviceQualifierOf(const UsbDeviceModel& model);
// The BOS descriptor: one platform capability, Microsoft OS 2.0.
std::vector<uint8_t> BosDescriptorOf(const UsbDeviceModel& model);
// The Microsoft OS 2.0 descriptor set: the bulk interface is compatible with
// WinUSB and registers a device interface class, so Windows binds WinUSB to
// it with no INF file.
std::vector<uint8_t> MsOs20DescriptorSetOf(const UsbDeviceModel& model);

}  // namespace ferrolt::capture
