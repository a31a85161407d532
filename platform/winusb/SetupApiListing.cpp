#include "platform/winusb/SetupApiListing.h"

#include <windows.h>
// GUID_DEVINTERFACE_USB_DEVICE is defined, not only declared, in this file.
#include <initguid.h>
#include <setupapi.h>
#include <usbiodef.h>

namespace ferrolt::platform {
namespace {

constexpr DWORD kListFlags = DIGCF_PRESENT | DIGCF_ALLCLASSES | DIGCF_DEVICEINTERFACE;

enum class Detail { Read, Skipped, OutOfMemory };

// The interface's path, through a detail record of the size SetupAPI asks for.
Detail ReadInterfacePath(const SetupApi& api, HDEVINFO set, SP_DEVICE_INTERFACE_DATA& entry, std::string& path) {
  DWORD required = 0;
  if (!api.GetDeviceInterfaceDetail(set, &entry, nullptr, 0, &required, nullptr) &&
      GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    return Detail::Skipped;
  if (required < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_A)) return Detail::Skipped;
  auto* detail = static_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(LocalAlloc(LMEM_FIXED, required));
  if (detail == nullptr) return Detail::OutOfMemory;
  // The size of the fixed part, not of the buffer, as SetupAPI requires.
  detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_A);
  const bool read = api.GetDeviceInterfaceDetail(set, &entry, detail, required, nullptr, nullptr) != FALSE;
  if (read) path = detail->DevicePath;
  LocalFree(detail);
  return read ? Detail::Read : Detail::Skipped;
}

}  // namespace

InterfaceListing ListUsbDeviceInterfaces(const SetupApi& api) {
  InterfaceListing listing;
  const HDEVINFO set = api.GetClassDevs(&GUID_DEVINTERFACE_USB_DEVICE, nullptr, nullptr, kListFlags);
  if (set == INVALID_HANDLE_VALUE) {
    listing.listed = false;
    listing.lastError = GetLastError();
    return listing;
  }
  listing.listed = true;
  for (DWORD index = 0;; ++index) {
    SP_DEVICE_INTERFACE_DATA entry{};
    entry.cbSize = sizeof entry;
    if (!api.EnumDeviceInterfaces(set, nullptr, &GUID_DEVINTERFACE_USB_DEVICE, index, &entry)) {
      listing.lastError = GetLastError();
      break;
    }
    std::string path;
    const Detail detail = ReadInterfacePath(api, set, entry, path);
    if (detail == Detail::OutOfMemory) {
      listing.lastError = kErrorNotEnoughMemory;
      break;
    }
    if (detail == Detail::Read) listing.paths.push_back(path);
  }
  api.DestroyDeviceInfoList(set);
  return listing;
}

}  // namespace ferrolt::platform
