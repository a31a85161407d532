// Finding the device's vendor interface among the listed USB interface
// paths. Every backend lists paths in the Windows form, so this matching runs
// unchanged on every platform.
#include "link/DeviceDiscovery.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "link/DeviceIds.h"
#include "link/UsbLink.h"
#include "platform/AsciiText.h"
#include "platform/DeviceChoice.h"
#include "platform/Hint.h"

namespace ferrolt {

namespace {

constexpr uint32_t kHresultWin32Facility = 0x80070000;
constexpr uint32_t kWin32CodeMask = 0xFFFF;
constexpr const char* kVendorMarker = "#vid_";
constexpr const char* kProductMarker = "&pid_";
constexpr const char* kVendorInterfaceMarker = "mi_04";
constexpr size_t kIdDigits = 4;

void CopyBounded(const std::string& path, char* out, size_t size) {
  const size_t count = path.size() < size - 1 ? path.size() : size - 1;
  std::memcpy(out, path.data(), count);
  out[count] = '\0';
}

void LowerCaseInPlace(char* text) {
  for (; *text != '\0'; ++text) *text = platform::AsciiLower(*text);
}

// The id written in the (up to) four characters at text: parsing stops at
// the first character that is not a hex digit.
int ParseId(const char* text) {
  unsigned value = 0;
  platform::ReadHexDigits(text, kIdDigits, value);
  return static_cast<int>(value);
}

bool PathNamesDevice(const char* path, int productId, int vendorId) {
  const char* vendor = std::strstr(path, kVendorMarker);
  if (vendor == nullptr) return false;
  const char* product = std::strstr(vendor, kProductMarker);
  if (product == nullptr) return false;
  const int vendorValue = ParseId(vendor + std::strlen(kVendorMarker));
  const int productValue = ParseId(product + std::strlen(kProductMarker));
  return productValue == productId && vendorValue == vendorId && std::strstr(path, kVendorInterfaceMarker) != nullptr;
}

// A failed search never yields 0 (found), even when the backend gave no
// error number: the caller must not open the last path examined.
int32_t SearchFailure(uint32_t lastError) {
  return HresultFromWin32(lastError != 0 ? lastError : platform::kErrorGenFailure);
}

platform::Hint severalDevicesHint;
// Room for the first line of that note.
constexpr size_t kSeveralDevicesHeadingSize = 128;

// Several attached devices answer to the ids: the user is shown each, with
// what picks it, once a run, as one note.
void ListMatchingDevices(platform::DeviceBackend& backend, const std::vector<std::string>& paths, int vendorId,
                         int productId, ConsoleSink& console) {
  if (!severalDevicesHint.First()) return;
  char heading[kSeveralDevicesHeadingSize];
  std::snprintf(heading, sizeof heading,
                "%d devices have ids %04x:%04x and interface %d; the first is used:", static_cast<int>(paths.size()),
                static_cast<unsigned>(vendorId), static_cast<unsigned>(productId), kVendorInterface);
  std::string note = heading;
  for (const std::string& path : paths) {
    const std::string description = backend.DescribeDevice(path);
    note += "\n  " + (description.empty() ? path : description);
  }
  note += std::string("\nSet ") + platform::kDeviceChoiceVariable +
          " to the first or the second word of a line to choose that device.";
  console.Note(note);
}

}  // namespace

std::vector<platform::AttachedDevice> ListAttachedDevices(platform::DeviceBackend& backend) {
  std::vector<platform::AttachedDevice> devices;
  char lowered[kDevicePathSize] = {};
  for (const std::string& path : backend.ListInterfaces().paths) {
    CopyBounded(path, lowered, sizeof lowered);
    LowerCaseInPlace(lowered);
    if (!PathNamesDevice(lowered, kProductId, kVendorId)) continue;
    devices.push_back(backend.Identify(path).value_or(platform::AttachedDevice{path, "", ""}));
  }
  return devices;
}

int32_t HresultFromWin32(uint32_t error) {
  if (static_cast<int32_t>(error) <= 0) return static_cast<int32_t>(error);
  return static_cast<int32_t>(kHresultWin32Facility | (error & kWin32CodeMask));
}

// The interface may be registered only under an interface class of the
// driver package that binds it, not beside the USB devices: asked for only
// when the listing holds no match, so a device found there is found as ever.
bool UsbLink::FindRegisteredPath(int productId, int vendorId, char* devicePath, size_t size) {
  const platform::UsbInterfaceId wanted{static_cast<uint16_t>(vendorId), static_cast<uint16_t>(productId),
                                        static_cast<uint8_t>(kVendorInterface)};
  char candidate[kDevicePathSize] = {};
  for (const std::string& path : backend_.ListRegisteredInterfaces(wanted)) {
    CopyBounded(path, candidate, sizeof candidate);
    LowerCaseInPlace(candidate);
    if (!PathNamesDevice(candidate, productId, vendorId)) continue;
    CopyBounded(candidate, devicePath, size);
    return true;
  }
  return false;
}

int32_t UsbLink::FindDevicePath(int productId, int vendorId, char* devicePath, size_t size, int* notFound) {
  if (notFound != nullptr) *notFound = 0;
  const platform::InterfaceListing listing = backend_.ListInterfaces();
  if (!listing.listed) {
    console_.Print("Couldn't find the Device GUID\n");
    return SearchFailure(listing.lastError);
  }
  if (devicePath != nullptr && size > 0) {
    std::vector<std::string> matches;
    for (const std::string& path : listing.paths) {
      CopyBounded(path, devicePath, size);
      LowerCaseInPlace(devicePath);
      if (PathNamesDevice(devicePath, productId, vendorId)) matches.emplace_back(devicePath);
    }
    if (!matches.empty()) {
      // The first match is opened, as ever; the others are only shown.
      CopyBounded(matches.front(), devicePath, size);
      if (matches.size() > 1) ListMatchingDevices(backend_, matches, vendorId, productId, console_);
      return kFound;
    }
    if (FindRegisteredPath(productId, vendorId, devicePath, size)) return kFound;
  }
  // A listing that could not allocate its records fails without a message.
  if (listing.lastError == platform::kErrorNotEnoughMemory) return kHresultOutOfMemory;
  if (listing.lastError == platform::kErrorNoMoreItems && notFound != nullptr) {
    *notFound = 1;
    console_.Print("Device not found.\n");
    backend_.HintNotFound(
        {static_cast<uint16_t>(vendorId), static_cast<uint16_t>(productId), static_cast<uint8_t>(kVendorInterface)});
  }
  const int32_t result = SearchFailure(listing.lastError);
  console_.PrintFormatted("General failure. GetLastError returned %X.\n", static_cast<unsigned>(result));
  return result;
}

}  // namespace ferrolt
