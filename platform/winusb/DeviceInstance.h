// Device instance ids, as Device Manager shows them (Details, "Device
// instance path"), and the serial number that a USB device's id carries.
#pragma once

#include <string>

namespace ferrolt::platform {

// The instance id a device interface path names: "\\?\usb#vid_1209&pid_0001&
// mi_04#7&2b3c&0&0004#{...}" is "USB\VID_1209&PID_0001&MI_04\7&2B3C&0&0004".
// Empty when the path is not of that form.
std::string InstanceIdOfPath(const std::string& path);

// Windows names a USB device that reports a serial number by that number
// ("USB\VID_1209&PID_0001\A1B2C3"), and one without by an id it makes up,
// which always holds an '&'. The serial number, or empty.
std::string SerialOfInstanceId(const std::string& instanceId);

}  // namespace ferrolt::platform
