// Where the emulated USB device sits on umockdev's bus: its node under /dev
// and the sysfs record umockdev builds the device from.
#pragma once

#include <string>

#include "devsim/UsbDeviceModel.h"

namespace ferrolt::devsim {

// Where the device sits: bus 1, the given address.
struct UsbAddress {
  int bus = 1;
  int device = 2;
};

// The device's node under /dev ("/dev/bus/usb/001/002").
std::string DeviceNodeOf(const UsbAddress& address);
// Its sysfs path below the testbed's /sys ("/sys/devices/usb1/1-2").
std::string SysfsPathOf(const UsbAddress& address);

// The description umockdev_testbed_add_from_string() takes: sysfs attributes,
// udev properties and the device node.
std::string SysfsRecordOf(const UsbDeviceModel& model, const UsbAddress& address);

}  // namespace ferrolt::devsim
