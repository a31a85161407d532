// Device interface paths in the form Windows gives them, for the backends
// that have to build them themselves (libusb, the emulator link): the portable
// discovery code matches these exactly as it matches the paths SetupAPI lists.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ferrolt::platform {

struct UsbInterfaceId {
  uint16_t vendorId = 0;
  uint16_t productId = 0;
  uint8_t interfaceNumber = 0;
};

// "\\?\USB#VID_1209&PID_0001&MI_04#<instance>#{A5DCBF10-...}", upper case as
// Windows writes it. instance names the device among its like.
std::string FormatInterfacePath(const UsbInterfaceId& id, const std::string& instance);

struct ParsedInterfacePath {
  UsbInterfaceId id;
  std::string instance;
};

// The reverse of FormatInterfacePath, in any letter case (the link lower-cases
// the path it found before it opens it). Empty when the path is not of that form.
std::optional<ParsedInterfacePath> ParseInterfacePath(const std::string& path);

// Paths compare as Windows compares them: ignoring letter case.
bool SamePath(const std::string& left, const std::string& right);

}  // namespace ferrolt::platform
