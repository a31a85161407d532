#include "platform/winusb/SetupApiListing.h"

#include <windows.h>
// GUID_DEVINTERFACE_USB_DEVICE is defined, not only declared, in this file.
#include <initguid.h>
// DEVPKEY_Device_Parent too.
#include <devpkey.h>
#include <rpc.h>
#include <setupapi.h>
#include <usbiodef.h>

#include <cstdio>
#include <cstring>

#include "platform/winusb/DeviceInstance.h"

namespace ferrolt::platform {
namespace {

constexpr DWORD kListFlags = DIGCF_PRESENT | DIGCF_ALLCLASSES | DIGCF_DEVICEINTERFACE;
// The present device nodes the USB bus and the composite parent created.
constexpr const char* kUsbEnumerator = "USB";
constexpr DWORD kNodeFlags = DIGCF_PRESENT | DIGCF_ALLCLASSES;
// One node's interfaces of one class: the enumerator is its instance id.
constexpr DWORD kNodeInterfaceFlags = DIGCF_PRESENT | DIGCF_DEVICEINTERFACE;
// The node's hardware key ("Device Parameters"), where an INF's
// HKR,,DeviceInterfaceGUIDs,0x10000,... or the device's MS OS 2.0 registry
// property descriptor names the classes WinUSB registers the interface under.
constexpr const char* kInterfaceClassValues[] = {"DeviceInterfaceGUIDs", "DeviceInterfaceGUID"};
constexpr const char* kHardwareIdFormat = "USB\\VID_%04X&PID_%04X&MI_%02X";
constexpr size_t kHardwareIdSize = sizeof "USB\\VID_0000&PID_0000&MI_00";
// A string list ends in two NULs; a value read may carry neither.
constexpr size_t kListTerminators = 2;
// MAX_DEVICE_ID_LEN of cfgmgr32.h, and its terminating NUL.
constexpr size_t kInstanceIdSize = 201;

enum class Detail { Read, Skipped, OutOfMemory };

// The interface's path, through a detail record of the size SetupAPI asks for.
// node gets the device node the interface belongs to.
Detail ReadInterfacePath(const SetupApi& api, HDEVINFO set, SP_DEVICE_INTERFACE_DATA& entry, std::string& path,
                         SP_DEVINFO_DATA& node) {
  DWORD required = 0;
  if (!api.GetDeviceInterfaceDetail(set, &entry, nullptr, 0, &required, nullptr) &&
      GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    return Detail::Skipped;
  if (required < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_A)) return Detail::Skipped;
  auto* detail = static_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(LocalAlloc(LMEM_FIXED, required));
  if (detail == nullptr) return Detail::OutOfMemory;
  // The size of the fixed part, not of the buffer, as SetupAPI requires.
  detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_A);
  node.cbSize = sizeof node;
  const bool read = api.GetDeviceInterfaceDetail(set, &entry, detail, required, nullptr, &node) != FALSE;
  if (read) path = detail->DevicePath;
  LocalFree(detail);
  return read ? Detail::Read : Detail::Skipped;
}

// The strings of a REG_MULTI_SZ or REG_SZ held in buffer, which ends in two NULs.
std::vector<std::string> SplitStrings(const std::vector<char>& buffer) {
  std::vector<std::string> strings;
  for (const char* text = buffer.data(); *text != '\0'; text += std::strlen(text) + 1) strings.emplace_back(text);
  return strings;
}

std::vector<std::string> HardwareIds(const SetupApi& api, HDEVINFO set, SP_DEVINFO_DATA& node) {
  DWORD required = 0;
  api.GetDeviceRegistryProperty(set, &node, SPDRP_HARDWAREID, nullptr, nullptr, 0, &required);
  if (required == 0) return {};
  std::vector<char> buffer(required + kListTerminators, '\0');
  if (!api.GetDeviceRegistryProperty(set, &node, SPDRP_HARDWAREID, nullptr, reinterpret_cast<BYTE*>(buffer.data()),
                                     required, nullptr))
    return {};
  return SplitStrings(buffer);
}

bool HasHardwareId(const SetupApi& api, HDEVINFO set, SP_DEVINFO_DATA& node, const char* wanted) {
  for (const std::string& id : HardwareIds(api, set, node))
    if (lstrcmpiA(id.c_str(), wanted) == 0) return true;
  return false;
}

bool ReadInstanceId(const SetupApi& api, HDEVINFO set, SP_DEVINFO_DATA& node, std::string& instanceId) {
  DWORD required = 0;
  api.GetDeviceInstanceId(set, &node, nullptr, 0, &required);
  if (required == 0) return false;
  std::vector<char> buffer(required + 1, '\0');
  if (!api.GetDeviceInstanceId(set, &node, buffer.data(), required, nullptr)) return false;
  instanceId = buffer.data();
  return true;
}

// The instance id of the node's parent: for an interface of a composite
// device, the device itself. Empty when it cannot be read.
std::string ParentInstanceId(const SetupApi& api, HDEVINFO set, SP_DEVINFO_DATA& node) {
  WCHAR buffer[kInstanceIdSize] = {};
  DEVPROPTYPE type = DEVPROP_TYPE_EMPTY;
  if (!api.GetDeviceProperty(set, &node, &DEVPKEY_Device_Parent, &type, reinterpret_cast<BYTE*>(buffer),
                             sizeof buffer - sizeof(WCHAR), nullptr, 0) ||
      type != DEVPROP_TYPE_STRING)
    return {};
  // Instance ids are ASCII.
  std::string id;
  for (const WCHAR* c = buffer; *c != 0; ++c) id.push_back(static_cast<char>(*c));
  return id;
}

// The place and serial number that FERROLT_DEVICE picks the interface's
// device by: the interface's own instance id, and the serial number its id
// or its parent's carries.
DeviceIdentity IdentityOf(const SetupApi& api, HDEVINFO set, SP_DEVINFO_DATA& node, const std::string& path) {
  DeviceIdentity identity{InstanceIdOfPath(path), {}};
  identity.serial = SerialOfInstanceId(identity.place);
  if (identity.serial.empty()) identity.serial = SerialOfInstanceId(ParentInstanceId(api, set, node));
  return identity;
}

// "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" as the registry holds it.
bool ParseGuid(const std::string& text, GUID& guid) {
  if (text.size() < 2 || text.front() != '{' || text.back() != '}') return false;
  std::string bare = text.substr(1, text.size() - 2);
  return UuidFromStringA(reinterpret_cast<RPC_CSTR>(bare.data()), &guid) == RPC_S_OK;
}

std::vector<GUID> RegisteredClasses(const SetupApi& api, HDEVINFO set, SP_DEVINFO_DATA& node) {
  std::vector<GUID> classes;
  const HKEY key = api.OpenDevRegKey(set, &node, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_QUERY_VALUE);
  if (key == reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE) || key == nullptr) return classes;
  for (const char* name : kInterfaceClassValues) {
    DWORD type = REG_NONE;
    DWORD size = 0;
    if (api.QueryValue(key, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS) continue;
    if (type != REG_SZ && type != REG_MULTI_SZ) continue;
    std::vector<char> buffer(size + kListTerminators, '\0');
    if (api.QueryValue(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()), &size) != ERROR_SUCCESS)
      continue;
    for (const std::string& text : SplitStrings(buffer)) {
      GUID guid{};
      if (ParseGuid(text, guid)) classes.push_back(guid);
    }
  }
  api.CloseKey(key);
  return classes;
}

void AppendRegisteredPaths(const SetupApi& api, const GUID& interfaceClass, const std::string& instanceId,
                           std::vector<std::string>& paths, std::vector<DeviceIdentity>& identities) {
  const HDEVINFO set = api.GetClassDevs(&interfaceClass, instanceId.c_str(), nullptr, kNodeInterfaceFlags);
  if (set == INVALID_HANDLE_VALUE) return;
  for (DWORD index = 0;; ++index) {
    SP_DEVICE_INTERFACE_DATA entry{};
    entry.cbSize = sizeof entry;
    if (!api.EnumDeviceInterfaces(set, nullptr, &interfaceClass, index, &entry)) break;
    std::string path;
    SP_DEVINFO_DATA node{};
    const Detail detail = ReadInterfacePath(api, set, entry, path, node);
    if (detail == Detail::OutOfMemory) break;
    if (detail != Detail::Read) continue;
    paths.push_back(path);
    identities.push_back(IdentityOf(api, set, node, path));
  }
  api.DestroyDeviceInfoList(set);
}

}  // namespace

InterfaceListing ListUsbDeviceInterfaces(const SetupApi& api, std::vector<DeviceIdentity>& identities) {
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
    SP_DEVINFO_DATA node{};
    const Detail detail = ReadInterfacePath(api, set, entry, path, node);
    if (detail == Detail::OutOfMemory) {
      listing.lastError = kErrorNotEnoughMemory;
      break;
    }
    if (detail != Detail::Read) continue;
    listing.paths.push_back(path);
    identities.push_back(IdentityOf(api, set, node, path));
  }
  api.DestroyDeviceInfoList(set);
  return listing;
}

// GUID_DEVINTERFACE_USB_DEVICE is the hub driver's class for the devices on a
// hub; nothing promises that a composite device's interface node is listed
// there. WinUSB registers that node under the classes its driver package
// names, which this reads from the node itself.
std::vector<std::string> ListRegisteredInterfaces(const SetupApi& api, const UsbInterfaceId& wanted,
                                                  std::vector<DeviceIdentity>& identities) {
  std::vector<std::string> paths;
  char hardwareId[kHardwareIdSize] = {};
  std::snprintf(hardwareId, sizeof hardwareId, kHardwareIdFormat, static_cast<unsigned>(wanted.vendorId),
                static_cast<unsigned>(wanted.productId), static_cast<unsigned>(wanted.interfaceNumber));
  const HDEVINFO nodes = api.GetClassDevs(nullptr, kUsbEnumerator, nullptr, kNodeFlags);
  if (nodes == INVALID_HANDLE_VALUE) return paths;
  for (DWORD index = 0;; ++index) {
    SP_DEVINFO_DATA node{};
    node.cbSize = sizeof node;
    if (!api.EnumDeviceInfo(nodes, index, &node)) break;
    std::string instanceId;
    if (!HasHardwareId(api, nodes, node, hardwareId) || !ReadInstanceId(api, nodes, node, instanceId)) continue;
    for (const GUID& interfaceClass : RegisteredClasses(api, nodes, node))
      AppendRegisteredPaths(api, interfaceClass, instanceId, paths, identities);
  }
  api.DestroyDeviceInfoList(nodes);
  return paths;
}

}  // namespace ferrolt::platform
