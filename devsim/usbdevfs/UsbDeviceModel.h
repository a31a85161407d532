// What the emulated device shows on the bus: its ids, its speed, its
// interfaces and their bulk endpoints, as a USB descriptor set and as the
// sysfs record umockdev builds the device from.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ferrolt::devsim {

inline constexpr uint8_t kBulkOutEndpoint = 0x01;
inline constexpr uint8_t kBulkInEndpoint = 0x81;
inline constexpr uint8_t kVendorInterface = 4;

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
};

// wMaxPacketSize of the bulk endpoints: 512 at high speed, 64 below (USB 2.0
// allows bulk no larger at full speed).
uint16_t BulkPacketSizeOf(UsbSpeed speed);

// Where the device sits: bus 1, the given address.
struct UsbAddress {
  int bus = 1;
  int device = 2;
};

// The device descriptor followed by the one configuration with all its
// interface and endpoint descriptors, as sysfs "descriptors" holds them.
std::vector<uint8_t> DescriptorsOf(const UsbDeviceModel& model);

// The device's node under /dev ("/dev/bus/usb/001/002").
std::string DeviceNodeOf(const UsbAddress& address);
// Its sysfs path below the testbed's /sys ("/sys/devices/usb1/1-2").
std::string SysfsPathOf(const UsbAddress& address);

// The description umockdev_testbed_add_from_string() takes: sysfs attributes,
// udev properties and the device node.
std::string SysfsRecordOf(const UsbDeviceModel& model, const UsbAddress& address);

}  // namespace ferrolt::devsim
