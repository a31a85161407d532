#include "tests/windows/WinUsbStandIn.h"

// DEVPKEY_Device_Parent, defined here.
#include <devpkey.h>
#include <initguid.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "link/DeviceIds.h"

namespace ferrolt::test {

// The device's side, kept while the device or a handle opened on it exists.
struct StandInState;

namespace {

// OVERLAPPED.Internal holds the status of the request, as the system keeps it.
constexpr ULONG_PTR kStatusSuccess = 0x00000000;
constexpr ULONG_PTR kStatusPending = 0x00000103;
constexpr ULONG_PTR kStatusUnsuccessful = 0xC0000001;  // a halted endpoint: USBD_STATUS_STALL_PID
constexpr ULONG_PTR kStatusCancelled = 0xC0000120;
constexpr ULONG_PTR kStatusDeviceNotConnected = 0xC000009D;

constexpr USHORT kFullSpeedPacket = 64;
constexpr USHORT kHighSpeedPacket = 512;
// DEVICE_SPEED: "0x03 indicates high-speed or higher; 0x01 indicates
// full-speed or lower" (WinUsb_QueryDeviceInformation).
constexpr UCHAR kReportedFullSpeed = 1;
constexpr UCHAR kReportedHighSpeed = 3;

constexpr GUID kUsbDeviceClass = {0xA5DCBF10, 0x6530, 0x11D2, {0x90, 0x1F, 0x00, 0xC0, 0x4F, 0xB9, 0x51, 0xED}};
constexpr GUID kUsbHubClass = {0xF18A0E88, 0xC30C, 0x11D0, {0x88, 0x15, 0x00, 0xA0, 0xC9, 0x06, 0xBE, 0xD8}};
// The class the device's driver package names for its vendor interface.
constexpr GUID kVendorClass = {0x6F1C2B7A, 0x3E4D, 0x4A85, {0x9B, 0x21, 0x5C, 0x7E, 0x0D, 0x44, 0xA3, 0x19}};
constexpr const char* kUsbDeviceClassText = "{A5DCBF10-6530-11D2-901F-00C04FB951ED}";
constexpr const char* kVendorClassText = "{6F1C2B7A-3E4D-4A85-9B21-5C7E0D44A319}";

struct Interface;

// One transfer the host issued and the system has not completed.
struct Request {
  Interface* owner = nullptr;
  UCHAR pipe = 0;
  UCHAR* buffer = nullptr;
  ULONG length = 0;
  OVERLAPPED* overlapped = nullptr;
  // The system keeps its own reference to the caller's event until it
  // completes the request.
  HANDLE event = nullptr;
  ULONG moved = 0;
};

void Complete(Request& request, ULONG_PTR status, ULONG count) {
  request.overlapped->InternalHigh = count;
  request.overlapped->Internal = status;
  SetEvent(request.event);
  CloseHandle(request.event);
}

}  // namespace

struct StandInState {
  std::mutex mutex;
  std::condition_variable written;
  StandInLayout layout = StandInLayout::WithTheUsbDevices;
  StandInSpeed speed = StandInSpeed::High;
  std::string serial;
  bool present = true;
  bool outHalted = false;
  std::deque<Request> writes;
  std::deque<Request> reads;
  // Requests that moved their bytes and whose completion is not reported yet.
  std::vector<Request> unreported;
  // Packets queued in the device for the host, whoever has it open.
  std::deque<std::pair<StandInPacket, Report>> packets;

  USHORT PacketSize() const { return speed == StandInSpeed::Full ? kFullSpeedPacket : kHighSpeedPacket; }
};

namespace {

// What WinUsb_Initialize hands out: one open interface.
struct Interface {
  std::shared_ptr<StandInState> device;
  // The host's cache: the rest of a packet longer than the read that took it.
  StandInPacket rest;
};

// ---- The plugged-in devices and the files opened on them.

std::mutex registryMutex;
std::vector<std::shared_ptr<StandInState>> pluggedIn;
std::map<HANDLE, std::shared_ptr<StandInState>> openedFiles;

std::vector<std::shared_ptr<StandInState>> PluggedIn() {
  std::lock_guard<std::mutex> lock(registryMutex);
  return pluggedIn;
}

std::string Format(const char* format, const std::string& serial, const char* classText = "") {
  char text[MAX_PATH] = {};
  std::snprintf(text, sizeof text, format, kVendorId, kProductId, serial.c_str(), classText);
  return text;
}

std::string ParentInstanceId(const StandInState& device) { return Format("USB\\VID_%04X&PID_%04X\\%s", device.serial); }
std::string VendorInstanceId(const StandInState& device) {
  return Format("USB\\VID_%04X&PID_%04X&MI_04\\7&%s&0&0004", device.serial);
}
// Interface paths: the instance id with '#' for '\', then the class.
std::string ParentPath(const StandInState& device) {
  return Format("\\\\?\\USB#VID_%04X&PID_%04X#%s#%s", device.serial, kUsbDeviceClassText);
}
std::string VendorPath(const StandInState& device, const char* classText) {
  return Format("\\\\?\\USB#VID_%04X&PID_%04X&MI_04#7&%s&0&0004#%s", device.serial, classText);
}

bool SameText(const std::string& left, const std::string& right) { return lstrcmpiA(left.c_str(), right.c_str()) == 0; }

// ---- WinUSB.

Interface* InterfaceOf(WINUSB_INTERFACE_HANDLE handle) { return static_cast<Interface*>(handle); }

BOOL Fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}

// Every overlapped request is pending when its call returns; the system sets
// the caller's event when it completes.
BOOL Pending() { return Fail(ERROR_IO_PENDING); }

Request Issue(Interface* owner, UCHAR pipe, UCHAR* buffer, ULONG length, OVERLAPPED* overlapped) {
  Request request;
  request.owner = owner;
  request.pipe = pipe;
  request.buffer = buffer;
  request.length = length;
  request.overlapped = overlapped;
  overlapped->Internal = kStatusPending;
  overlapped->InternalHigh = 0;
  ResetEvent(overlapped->hEvent);
  DuplicateHandle(GetCurrentProcess(), overlapped->hEvent, GetCurrentProcess(), &request.event, 0, FALSE,
                  DUPLICATE_SAME_ACCESS);
  return request;
}

// Hands a packet to a read: what does not fit stays in the host's cache.
void Deliver(StandInState& device, Request request, StandInPacket packet, Report report) {
  const ULONG count = std::min<ULONG>(request.length, static_cast<ULONG>(packet.size()));
  std::memcpy(request.buffer, packet.data(), count);
  request.owner->rest.assign(packet.begin() + count, packet.end());
  if (report == Report::OnAbort) {
    request.moved = count;
    device.unreported.push_back(request);
    return;
  }
  Complete(request, kStatusSuccess, count);
  // The excess goes to the next read request (pipe policies ALLOW_PARTIAL_READS
  // on, AUTO_FLUSH off), and WinUSB serves its queued requests in order: a
  // read already waiting takes it before any later packet.
  Interface* owner = request.owner;
  const auto next = std::find_if(device.reads.begin(), device.reads.end(), [&](const Request& waiting) {
    return waiting.owner == owner && waiting.pipe == request.pipe;
  });
  if (owner->rest.empty() || next == device.reads.end()) return;
  const Request waiting = *next;
  device.reads.erase(next);
  Deliver(device, waiting, std::move(owner->rest), Report::AtOnce);
}

// Ends the requests of one handle (and one pipe, unless any) with status.
template <typename Requests>
void EndRequests(Requests& requests, const Interface* owner, int pipe, ULONG_PTR status) {
  auto kept = requests.begin();
  for (auto it = requests.begin(); it != requests.end(); ++it) {
    if ((owner == nullptr || it->owner == owner) && (pipe < 0 || it->pipe == pipe))
      Complete(*it, status, it->moved);
    else
      *kept++ = *it;
  }
  requests.erase(kept, requests.end());
}

void EndAll(StandInState& device, const Interface* owner, int pipe, ULONG_PTR status) {
  EndRequests(device.writes, owner, pipe, status);
  EndRequests(device.reads, owner, pipe, status);
  EndRequests(device.unreported, owner, pipe, status);
}

WINBOOL WINAPI Initialize(HANDLE file, PWINUSB_INTERFACE_HANDLE handle) {
  std::lock_guard<std::mutex> lock(registryMutex);
  const auto opened = openedFiles.find(file);
  if (opened == openedFiles.end()) return Fail(ERROR_INVALID_HANDLE);
  *handle = new Interface{opened->second, {}};
  openedFiles.erase(opened);
  return TRUE;
}

// What is still pending on the handle ends with it.
WINBOOL WINAPI Free(WINUSB_INTERFACE_HANDLE handle) {
  Interface* owner = InterfaceOf(handle);
  {
    std::lock_guard<std::mutex> lock(owner->device->mutex);
    EndAll(*owner->device, owner, -1, kStatusCancelled);
  }
  delete owner;
  return TRUE;
}

WINBOOL WINAPI QueryInterfaceSettings(WINUSB_INTERFACE_HANDLE, UCHAR alternate, PUSB_INTERFACE_DESCRIPTOR setting) {
  if (alternate != 0) return Fail(ERROR_NO_MORE_ITEMS);
  *setting = {};
  setting->bInterfaceNumber = static_cast<UCHAR>(kVendorInterface);
  setting->bNumEndpoints = 2;
  return TRUE;
}

WINBOOL WINAPI QueryPipe(WINUSB_INTERFACE_HANDLE handle, UCHAR alternate, UCHAR index, PWINUSB_PIPE_INFORMATION pipe) {
  if (alternate != 0 || index > 1) return Fail(ERROR_NO_MORE_ITEMS);
  *pipe = {};
  pipe->PipeType = UsbdPipeTypeBulk;
  pipe->PipeId = index == 0 ? kStandInOutPipe : kStandInInPipe;
  pipe->MaximumPacketSize = InterfaceOf(handle)->device->PacketSize();
  return TRUE;
}

WINBOOL WINAPI QueryDeviceInformation(WINUSB_INTERFACE_HANDLE handle, ULONG type, PULONG length, PVOID buffer) {
  if (type != DEVICE_SPEED || *length < 1) return Fail(ERROR_INVALID_PARAMETER);
  const bool full = InterfaceOf(handle)->device->speed == StandInSpeed::Full;
  *static_cast<UCHAR*>(buffer) = full ? kReportedFullSpeed : kReportedHighSpeed;
  *length = 1;
  return TRUE;
}

WINBOOL WINAPI WritePipe(WINUSB_INTERFACE_HANDLE handle, UCHAR pipe, PUCHAR data, ULONG length, PULONG,
                         LPOVERLAPPED overlapped) {
  if (pipe != kStandInOutPipe) return Fail(ERROR_INVALID_PARAMETER);
  Interface* owner = InterfaceOf(handle);
  StandInState& device = *owner->device;
  std::lock_guard<std::mutex> lock(device.mutex);
  if (!device.present) return Fail(ERROR_DEVICE_NOT_CONNECTED);
  Request request = Issue(owner, pipe, data, length, overlapped);
  if (device.outHalted) {
    Complete(request, kStatusUnsuccessful, 0);
  } else {
    device.writes.push_back(request);
    device.written.notify_all();
  }
  return Pending();
}

WINBOOL WINAPI ReadPipe(WINUSB_INTERFACE_HANDLE handle, UCHAR pipe, PUCHAR data, ULONG length, PULONG,
                        LPOVERLAPPED overlapped) {
  if (pipe != kStandInInPipe) return Fail(ERROR_INVALID_PARAMETER);
  Interface* owner = InterfaceOf(handle);
  StandInState& device = *owner->device;
  std::lock_guard<std::mutex> lock(device.mutex);
  if (!device.present) return Fail(ERROR_DEVICE_NOT_CONNECTED);
  Request request = Issue(owner, pipe, data, length, overlapped);
  if (!owner->rest.empty()) {
    Deliver(device, request, std::move(owner->rest), Report::AtOnce);
  } else if (!device.packets.empty()) {
    auto [packet, report] = std::move(device.packets.front());
    device.packets.pop_front();
    Deliver(device, request, std::move(packet), report);
  } else {
    device.reads.push_back(request);
  }
  return Pending();
}

WINBOOL WINAPI OverlappedResult(WINUSB_INTERFACE_HANDLE, LPOVERLAPPED overlapped, LPDWORD count, WINBOOL wait) {
  if (wait) WaitForSingleObject(overlapped->hEvent, INFINITE);
  const ULONG_PTR status = overlapped->Internal;
  if (status == kStatusPending) return Fail(ERROR_IO_INCOMPLETE);
  *count = static_cast<DWORD>(overlapped->InternalHigh);
  switch (status) {
    case kStatusSuccess:
      return TRUE;
    case kStatusCancelled:
      return Fail(ERROR_OPERATION_ABORTED);
    case kStatusDeviceNotConnected:
      return Fail(ERROR_DEVICE_NOT_CONNECTED);
    default:
      return Fail(ERROR_GEN_FAILURE);
  }
}

// Drops the host's cache only; the device keeps what it queued.
WINBOOL WINAPI FlushPipe(WINUSB_INTERFACE_HANDLE handle, UCHAR pipe) {
  if (pipe != kStandInOutPipe && pipe != kStandInInPipe) return Fail(ERROR_INVALID_PARAMETER);
  Interface* owner = InterfaceOf(handle);
  std::lock_guard<std::mutex> lock(owner->device->mutex);
  if (pipe == kStandInInPipe) owner->rest.clear();
  return TRUE;
}

WINBOOL WINAPI AbortPipe(WINUSB_INTERFACE_HANDLE handle, UCHAR pipe) {
  if (pipe != kStandInOutPipe && pipe != kStandInInPipe) return Fail(ERROR_INVALID_PARAMETER);
  Interface* owner = InterfaceOf(handle);
  std::lock_guard<std::mutex> lock(owner->device->mutex);
  EndAll(*owner->device, owner, pipe, kStatusCancelled);
  return TRUE;
}

WINBOOL WINAPI ResetPipe(WINUSB_INTERFACE_HANDLE handle, UCHAR pipe) {
  if (pipe != kStandInOutPipe && pipe != kStandInInPipe) return Fail(ERROR_INVALID_PARAMETER);
  Interface* owner = InterfaceOf(handle);
  std::lock_guard<std::mutex> lock(owner->device->mutex);
  if (pipe == kStandInOutPipe) owner->device->outHalted = false;
  return TRUE;
}

// ---- SetupAPI: the device nodes of the plugged-in devices, beside a root hub.

struct RegistryValue {
  std::string name;
  DWORD type = REG_NONE;
  std::string data;  // with its terminating NULs
};

struct DeviceInterface {
  GUID interfaceClass;
  std::string path;
};

struct DeviceNode {
  std::string instanceId;
  std::string hardwareIds;  // REG_MULTI_SZ
  std::vector<RegistryValue> hardwareKey;
  std::vector<DeviceInterface> interfaces;
  std::string parentInstanceId;
};

struct DeviceInfoSet {
  std::vector<DeviceNode> nodes;
  // (node, interface) for every interface of the nodes, when the set was
  // made of device interfaces.
  std::vector<std::pair<size_t, size_t>> interfaces;
};

std::string MultiString(std::initializer_list<std::string> strings) {
  std::string list;
  for (const std::string& text : strings) list += text + '\0';
  return list + '\0';
}

std::vector<DeviceNode> PresentNodes() {
  std::vector<DeviceNode> nodes;
  constexpr const char* kRootHub = "USB\\ROOT_HUB30\\4&2A5B0C1&0&0";
  nodes.push_back({kRootHub,
                   MultiString({"USB\\ROOT_HUB30"}),
                   {},
                   {{kUsbHubClass, "\\\\?\\USB#ROOT_HUB30#4&2A5B0C1&0&0#{F18A0E88-C30C-11D0-8815-00A0C906BED8}"}},
                   ""});
  for (const auto& device : PluggedIn()) {
    const std::string ids = Format("USB\\VID_%04X&PID_%04X", device->serial);
    nodes.push_back({ParentInstanceId(*device),
                     MultiString({ids + "&REV_0100", ids}),
                     {},
                     {{kUsbDeviceClass, ParentPath(*device)}},
                     kRootHub});
    DeviceNode vendor{VendorInstanceId(*device),
                      MultiString({ids + "&REV_0100&MI_04", ids + "&MI_04"}),
                      {},
                      {},
                      ParentInstanceId(*device)};
    if (device->layout == StandInLayout::WithTheUsbDevices)
      vendor.interfaces.push_back({kUsbDeviceClass, VendorPath(*device, kUsbDeviceClassText)});
    vendor.interfaces.push_back({kVendorClass, VendorPath(*device, kVendorClassText)});
    if (device->layout == StandInLayout::UnderItsOwnClass)
      vendor.hardwareKey.push_back({"DeviceInterfaceGUID", REG_SZ, std::string(kVendorClassText) + '\0'});
    else
      vendor.hardwareKey.push_back({"DeviceInterfaceGUIDs", REG_MULTI_SZ, MultiString({kVendorClassText})});
    nodes.push_back(std::move(vendor));
  }
  return nodes;
}

DeviceInfoSet* SetOf(HDEVINFO set) { return static_cast<DeviceInfoSet*>(set); }

bool HasClass(const DeviceNode& node, const GUID& interfaceClass) {
  return std::any_of(node.interfaces.begin(), node.interfaces.end(),
                     [&](const DeviceInterface& entry) { return IsEqualGUID(entry.interfaceClass, interfaceClass); });
}

// An enumerator names a bus ("USB") or, for device interfaces, one device instance.
bool Enumerated(const DeviceNode& node, const char* enumerator, bool interfaces) {
  if (enumerator == nullptr) return true;
  const std::string name(enumerator);
  if (interfaces && SameText(node.instanceId, name)) return true;
  return node.instanceId.size() > name.size() && node.instanceId[name.size()] == '\\' &&
         SameText(node.instanceId.substr(0, name.size()), name);
}

// Setup classes are not modelled: a set is of all classes or of one
// interface class.
HDEVINFO WINAPI GetClassDevs(const GUID* classGuid, PCSTR enumerator, HWND, DWORD flags) {
  const bool interfaces = (flags & DIGCF_DEVICEINTERFACE) != 0;
  const bool allClasses = (flags & DIGCF_ALLCLASSES) != 0;
  if (!allClasses && (!interfaces || classGuid == nullptr)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_HANDLE_VALUE;
  }
  auto* set = new DeviceInfoSet;
  for (DeviceNode& node : PresentNodes()) {
    if (!Enumerated(node, enumerator, interfaces) || (!allClasses && !HasClass(node, *classGuid))) continue;
    if (interfaces && node.interfaces.empty()) continue;
    set->nodes.push_back(std::move(node));
    if (!interfaces) continue;
    for (size_t i = 0; i < set->nodes.back().interfaces.size(); ++i)
      set->interfaces.emplace_back(set->nodes.size() - 1, i);
  }
  return set;
}

WINBOOL WINAPI DestroyDeviceInfoList(HDEVINFO set) {
  delete SetOf(set);
  return TRUE;
}

WINBOOL WINAPI EnumDeviceInfo(HDEVINFO set, DWORD index, PSP_DEVINFO_DATA node) {
  if (node->cbSize != sizeof(SP_DEVINFO_DATA)) return Fail(ERROR_INVALID_USER_BUFFER);
  if (index >= SetOf(set)->nodes.size()) return Fail(ERROR_NO_MORE_ITEMS);
  node->DevInst = index;
  return TRUE;
}

const DeviceNode* NodeOf(HDEVINFO set, const SP_DEVINFO_DATA* node) {
  if (node == nullptr || node->DevInst >= SetOf(set)->nodes.size()) return nullptr;
  return &SetOf(set)->nodes[node->DevInst];
}

// The two-call pattern of SetupAPI: the size needed, then the data.
BOOL CopyOut(const std::string& data, void* buffer, DWORD size, DWORD* required) {
  if (required != nullptr) *required = static_cast<DWORD>(data.size());
  if (buffer == nullptr || size < data.size()) return Fail(ERROR_INSUFFICIENT_BUFFER);
  std::memcpy(buffer, data.data(), data.size());
  return TRUE;
}

WINBOOL WINAPI GetDeviceRegistryProperty(HDEVINFO set, PSP_DEVINFO_DATA node, DWORD property, PDWORD type, PBYTE buffer,
                                         DWORD size, PDWORD required) {
  const DeviceNode* found = NodeOf(set, node);
  if (found == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  if (property != SPDRP_HARDWAREID) return Fail(ERROR_INVALID_DATA);
  if (type != nullptr) *type = REG_MULTI_SZ;
  return CopyOut(found->hardwareIds, buffer, size, required);
}

WINBOOL WINAPI GetDeviceInstanceId(HDEVINFO set, PSP_DEVINFO_DATA node, PSTR buffer, DWORD size, PDWORD required) {
  const DeviceNode* found = NodeOf(set, node);
  if (found == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  return CopyOut(found->instanceId + '\0', buffer, size, required);
}

// Of a node's properties, its parent's instance id only (a DEVPROP_TYPE_STRING).
WINBOOL WINAPI GetDeviceProperty(HDEVINFO set, PSP_DEVINFO_DATA node, const DEVPROPKEY* key, DEVPROPTYPE* type,
                                 PBYTE buffer, DWORD size, PDWORD required, DWORD flags) {
  const DeviceNode* found = NodeOf(set, node);
  if (found == nullptr || flags != 0) return Fail(ERROR_INVALID_PARAMETER);
  if (!IsEqualDevPropKey(*key, DEVPKEY_Device_Parent) || found->parentInstanceId.empty()) return Fail(ERROR_NOT_FOUND);
  const std::wstring text(found->parentInstanceId.begin(), found->parentInstanceId.end());
  const DWORD needed = static_cast<DWORD>((text.size() + 1) * sizeof(WCHAR));
  if (required != nullptr) *required = needed;
  *type = DEVPROP_TYPE_STRING;
  if (buffer == nullptr || size < needed) return Fail(ERROR_INSUFFICIENT_BUFFER);
  std::memcpy(buffer, text.c_str(), needed);
  return TRUE;
}

// A key is a copy of the node's values, freed when it is closed.
HKEY WINAPI OpenDevRegKey(HDEVINFO set, PSP_DEVINFO_DATA node, DWORD, DWORD, DWORD keyType, REGSAM) {
  const DeviceNode* found = NodeOf(set, node);
  if (found == nullptr || keyType != DIREG_DEV) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE);
  }
  return reinterpret_cast<HKEY>(new std::vector<RegistryValue>(found->hardwareKey));
}

LSTATUS WINAPI QueryValue(HKEY key, LPCSTR name, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD size) {
  const auto* values = reinterpret_cast<const std::vector<RegistryValue>*>(key);
  const auto value = std::find_if(values->begin(), values->end(),
                                  [&](const RegistryValue& candidate) { return SameText(candidate.name, name); });
  if (value == values->end()) return ERROR_FILE_NOT_FOUND;
  if (type != nullptr) *type = value->type;
  const DWORD needed = static_cast<DWORD>(value->data.size());
  const DWORD room = size != nullptr ? *size : 0;
  if (size != nullptr) *size = needed;
  if (data == nullptr) return ERROR_SUCCESS;
  if (room < needed) return ERROR_MORE_DATA;
  std::memcpy(data, value->data.data(), needed);
  return ERROR_SUCCESS;
}

LSTATUS WINAPI CloseKey(HKEY key) {
  delete reinterpret_cast<std::vector<RegistryValue>*>(key);
  return ERROR_SUCCESS;
}

WINBOOL WINAPI EnumDeviceInterfaces(HDEVINFO set, PSP_DEVINFO_DATA node, const GUID* interfaceClass, DWORD index,
                                    PSP_DEVICE_INTERFACE_DATA entry) {
  if (entry->cbSize != sizeof(SP_DEVICE_INTERFACE_DATA)) return Fail(ERROR_INVALID_USER_BUFFER);
  const DeviceInfoSet& info = *SetOf(set);
  DWORD seen = 0;
  for (size_t position = 0; position < info.interfaces.size(); ++position) {
    const auto [nodeIndex, interfaceIndex] = info.interfaces[position];
    if (node != nullptr && node->DevInst != nodeIndex) continue;
    const DeviceInterface& candidate = info.nodes[nodeIndex].interfaces[interfaceIndex];
    if (!IsEqualGUID(candidate.interfaceClass, *interfaceClass) || seen++ != index) continue;
    entry->InterfaceClassGuid = candidate.interfaceClass;
    entry->Flags = SPINT_ACTIVE;
    entry->Reserved = position;
    return TRUE;
  }
  return Fail(ERROR_NO_MORE_ITEMS);
}

WINBOOL WINAPI GetDeviceInterfaceDetail(HDEVINFO set, PSP_DEVICE_INTERFACE_DATA entry,
                                        PSP_DEVICE_INTERFACE_DETAIL_DATA_A detail, DWORD size, PDWORD required,
                                        PSP_DEVINFO_DATA node) {
  const DeviceInfoSet& info = *SetOf(set);
  if (entry->Reserved >= info.interfaces.size()) return Fail(ERROR_INVALID_PARAMETER);
  const auto [nodeIndex, interfaceIndex] = info.interfaces[entry->Reserved];
  const std::string& path = info.nodes[nodeIndex].interfaces[interfaceIndex].path;
  const DWORD needed = static_cast<DWORD>(offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_A, DevicePath) + path.size() + 1);
  if (required != nullptr) *required = needed;
  if (detail == nullptr) return Fail(size == 0 ? ERROR_INSUFFICIENT_BUFFER : ERROR_INVALID_USER_BUFFER);
  if (detail->cbSize != sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_A)) return Fail(ERROR_INVALID_USER_BUFFER);
  if (size < needed) return Fail(ERROR_INSUFFICIENT_BUFFER);
  std::memcpy(detail->DevicePath, path.c_str(), path.size() + 1);
  if (node != nullptr) {
    if (node->cbSize != sizeof(SP_DEVINFO_DATA)) return Fail(ERROR_INVALID_USER_BUFFER);
    node->DevInst = static_cast<DWORD>(nodeIndex);
  }
  return TRUE;
}

// Opens the vendor interface of a plugged-in device by any path it is
// listed under (the composite parent is listed, never opened).
HANDLE WINAPI OpenInterface(LPCSTR path, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
  for (const auto& device : PluggedIn()) {
    if (!SameText(path, VendorPath(*device, kUsbDeviceClassText)) &&
        !SameText(path, VendorPath(*device, kVendorClassText)))
      continue;
    // Some handle the backend can close; the stand-in keeps what it stands for.
    const HANDLE file = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::lock_guard<std::mutex> lock(registryMutex);
    openedFiles[file] = device;
    return file;
  }
  SetLastError(ERROR_FILE_NOT_FOUND);
  return INVALID_HANDLE_VALUE;
}

std::string NextSerial() {
  static std::atomic<int> counter{0};
  return "STANDIN" + std::to_string(counter.fetch_add(1));
}

}  // namespace

const platform::WinUsbApi& StandInWinUsbApi() {
  static const platform::WinUsbApi api{Initialize, Free,     QueryInterfaceSettings, QueryPipe, QueryDeviceInformation,
                                       WritePipe,  ReadPipe, OverlappedResult,       FlushPipe, AbortPipe,
                                       ResetPipe};
  return api;
}

const platform::SetupApi& StandInSetupApi() {
  static const platform::SetupApi api{
      GetClassDevs,      EnumDeviceInfo, GetDeviceRegistryProperty, GetDeviceInstanceId,      OpenDevRegKey,
      QueryValue,        CloseKey,       EnumDeviceInterfaces,      GetDeviceInterfaceDetail, DestroyDeviceInfoList,
      GetDeviceProperty, OpenInterface};
  return api;
}

StandInDevice::StandInDevice(StandInLayout layout, StandInSpeed speed) : state_(std::make_shared<StandInState>()) {
  state_->layout = layout;
  state_->speed = speed;
  state_->serial = NextSerial();
  std::lock_guard<std::mutex> lock(registryMutex);
  pluggedIn.push_back(state_);
}

StandInDevice::~StandInDevice() {
  {
    std::lock_guard<std::mutex> lock(registryMutex);
    pluggedIn.erase(std::remove(pluggedIn.begin(), pluggedIn.end(), state_), pluggedIn.end());
  }
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->present = false;
  EndAll(*state_, nullptr, -1, kStatusDeviceNotConnected);
}

bool StandInDevice::TakeBlock(StandInBlock& block, std::chrono::milliseconds wait, Report report) {
  std::unique_lock<std::mutex> lock(state_->mutex);
  if (!state_->written.wait_for(lock, wait, [&] { return !state_->writes.empty(); })) return false;
  Request request = state_->writes.front();
  state_->writes.pop_front();
  const ULONG count = std::min<ULONG>(request.length, static_cast<ULONG>(block.size()));
  std::memcpy(block.data(), request.buffer, count);
  if (report == Report::OnAbort) {
    request.moved = request.length;
    state_->unreported.push_back(request);
  } else {
    Complete(request, kStatusSuccess, request.length);
  }
  return count == block.size();
}

void StandInDevice::SendPacket(StandInPacket packet, Report report) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (state_->reads.empty()) {
    state_->packets.emplace_back(std::move(packet), report);
    return;
  }
  Request request = state_->reads.front();
  state_->reads.pop_front();
  Deliver(*state_, request, std::move(packet), report);
}

void StandInDevice::SendBlock(const StandInBlock& block, Report report) {
  SendPacket(StandInPacket(block.begin(), block.end()), report);
}

void StandInDevice::HaltOut() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->outHalted = true;
  EndRequests(state_->writes, nullptr, -1, kStatusUnsuccessful);
}

std::string StandInDevice::InterfacePath() const {
  return VendorPath(*state_,
                    state_->layout == StandInLayout::WithTheUsbDevices ? kUsbDeviceClassText : kVendorClassText);
}

std::string StandInDevice::Serial() const { return state_->serial; }

}  // namespace ferrolt::test
