// Opening and closing the link: the device's vendor interface, its driver
// binding and its two bulk pipes.
#include "link/UsbLink.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "link/DevicePacket.h"
#include "link/Limits.h"

namespace ferrolt {

namespace {

constexpr const char* kConnectFailedText =
    "Error:Failed to connect to the bulk interface, device might be disconnected";
constexpr const char* kDriverFailedText = "Error:WinUSB failed to initialize, WinUSB driver may be missing corrupt";
constexpr const char* kPipesFailedText =
    "Error:USB Bulk Endpoints are not found, USB is in a bad state and device needs to be reset";
constexpr uint8_t kInDirectionBit = 0x80;

const char* OpenFailureText(OpenStatus status) {
  switch (status) {
    case OpenStatus::NotFound:
    case OpenStatus::FileOpenFailed:
      return kConnectFailedText;
    case OpenStatus::DriverInitFailed:
      return kDriverFailedText;
    case OpenStatus::PipeQueryFailed:
      return kPipesFailedText;
    case OpenStatus::Opened:
      break;
  }
  return nullptr;
}

// The speed is only reported; it changes nothing.
void ReportSpeed(platform::DeviceConnection& connection, ConsoleSink& console) {
  uint8_t speed = 0;
  uint32_t error = 0;
  if (!connection.QueryDeviceSpeed(speed, error)) {
    console.PrintFormatted("Error getting device speed: %d.\n", static_cast<int>(error));
    return;
  }
  if (speed == platform::kSpeedFull) console.PrintFormatted("Device speed: %d (Full speed).\n", speed);
  if (speed == platform::kSpeedHigh) console.PrintFormatted("Device speed: %d (High speed).\n", speed);
}

}  // namespace

UsbLink::UsbLink(platform::DeviceBackend& backend, platform::Event& cancelEvent, ConsoleSink& console)
    : backend_(backend), cancelEvent_(cancelEvent), console_(console) {}

UsbLink::~UsbLink() { CloseDevice(); }

bool UsbLink::ConnectDevice(int productId, int vendorId, ILogMessageCallBack* log) {
  const OpenStatus status = OpenDevice(productId, vendorId);
  if (status == OpenStatus::Opened) return true;
  if (log != nullptr) log->LogMessageCallBack(OpenFailureText(status));
  return false;
}

OpenStatus UsbLink::OpenDevice(int productId, int vendorId) {
  if (IsOpen()) return OpenStatus::Opened;

  char path[kDevicePathSize] = {};
  int notFound = 0;
  const int32_t found = FindDevicePath(productId, vendorId, path, sizeof(path), &notFound);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    std::memcpy(DevicePath, path, sizeof(path));
  }
  if (found < 0) return OpenStatus::NotFound;

  std::unique_ptr<platform::DeviceConnection> opened = backend_.Open(path);
  if (opened == nullptr) return OpenStatus::FileOpenFailed;
  if (!opened->Initialize()) return OpenStatus::DriverInitFailed;  // released on return

  std::shared_ptr<platform::DeviceConnection> connection = std::move(opened);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    WinUsbHandle = connection;
  }
  if (!QueryPipes()) {
    std::lock_guard<std::mutex> lock(mutex_);
    WinUsbHandle.reset();
    return OpenStatus::PipeQueryFailed;
  }
  ReportSpeed(*connection, console_);
  bool drain = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    drain = std::exchange(drainAtOpen_, false);
  }
  if (drain) DrainStaleBlocks();

  std::lock_guard<std::mutex> lock(mutex_);
  DeviceOpen = true;
  return OpenStatus::Opened;
}

void UsbLink::DrainAtNextOpen() {
  std::lock_guard<std::mutex> lock(mutex_);
  drainAtOpen_ = true;
}

// Closing a handle tells a device nothing: one still sending the rest of an
// aborted download or command output would feed it to the next operation,
// even in the next run.
void UsbLink::DrainStaleBlocks() {
  const auto deadline = std::chrono::steady_clock::now() + limits::kStaleDrainLimit;
  Block stale{};
  uint32_t received = 0;
  while (std::chrono::steady_clock::now() < deadline &&
         ReadBlock(stale.data(), kBlockSize, limits::kStaleBlockWait, ReadWait::WithoutCancel, &received) ==
             TransferStatus::Done) {
  }
}

bool UsbLink::QueryPipes() {
  const std::shared_ptr<platform::DeviceConnection> connection = Connection();
  if (connection == nullptr) return false;
  uint8_t endpointCount = 0;
  if (!connection->QueryInterfaceSettings(endpointCount)) return false;

  // The result is that of the last pipe query, as the driver reports it;
  // whether both directions were found is left to the transfers.
  bool lastQuery = true;
  for (uint8_t index = 0; index < endpointCount; ++index) {
    platform::PipeInfo pipe;
    lastQuery = connection->QueryPipe(index, pipe);
    if (!lastQuery || pipe.type != platform::PipeType::Bulk) continue;
    std::lock_guard<std::mutex> lock(mutex_);
    if (pipe.pipeId & kInDirectionBit)
      BulkInPipe = pipe.pipeId;
    else
      BulkOutPipe = pipe.pipeId;
  }
  return lastQuery;
}

void UsbLink::CloseDevice() {
  std::shared_ptr<platform::DeviceConnection> connection;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!DeviceOpen) return;
    connection = std::move(WinUsbHandle);
    DeviceOpen = false;
  }
  // Released outside the lock: the connection aborts its outstanding
  // transfers, and a reader waiting on one sees it complete.
  connection.reset();
  // Reads that brought their blocks before the link went hold data the
  // device counts as delivered (the answer to a block sent before a
  // reconnect): the reads after reopening take them, in order. The reads
  // after the first that holds none are gone with the link.
  std::lock_guard<std::mutex> lock(mutex_);
  const auto firstEmpty =
      std::find_if(queuedReads_.begin(), queuedReads_.end(),
                   [](const std::shared_ptr<platform::Transfer>& read) { return !HoldsBlock(*read); });
  queuedReads_.erase(firstEmpty, queuedReads_.end());
}

bool UsbLink::IsOpen() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return DeviceOpen;
}

uint8_t UsbLink::BulkInPipeId() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return BulkInPipe;
}

uint8_t UsbLink::BulkOutPipeId() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return BulkOutPipe;
}

std::string UsbLink::DevicePathText() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::string(DevicePath);
}

std::shared_ptr<platform::DeviceConnection> UsbLink::Connection() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return WinUsbHandle;
}

}  // namespace ferrolt
