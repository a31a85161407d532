// The platform interface: the only seam between the portable link layer and
// an operating system or transport. It is shaped after what the link needs
// (list interface paths, open, query pipes and speed, start one transfer,
// flush, close) and nothing more. Three backends implement it: WinUSB on
// Windows, libusb elsewhere, and the emulator link for tests and for users
// without hardware.
//
// Errors are translated inside the backend into the results below; the one
// raw number a console line prints (a Windows error number) is passed up as
// such, so the texts stay the same on every platform.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Hint.h"
#include "platform/Transfer.h"
#include "platform/UsbInterfacePath.h"

namespace ferrolt::capture {
class UsbCapture;
}

namespace ferrolt::platform {

// Windows error numbers that the portable code prints or tests.
inline constexpr uint32_t kErrorNoMoreItems = 259;
inline constexpr uint32_t kErrorNotEnoughMemory = 8;
inline constexpr uint32_t kErrorGenFailure = 31;

enum class PipeType : uint8_t { Control = 0, Isochronous = 1, Bulk = 2, Interrupt = 3 };

struct PipeInfo {
  PipeType type = PipeType::Control;
  uint8_t pipeId = 0;  // endpoint address; bit 7 set for IN
  uint16_t maximumPacketSize = 0;
};

// Device speeds as the device-information query reports them.
inline constexpr uint8_t kSpeedLow = 1;
inline constexpr uint8_t kSpeedFull = 2;
inline constexpr uint8_t kSpeedHigh = 3;

// What a listing of the present USB device interfaces gave.
struct InterfaceListing {
  // False when the set of device interfaces could not be had at all; then
  // paths is empty and lastError says why.
  bool listed = false;
  // The Windows error number the listing ended with: kErrorNoMoreItems when
  // it ran to its end, anything else when it stopped early.
  uint32_t lastError = kErrorNoMoreItems;
  // Interface paths in the Windows form "\\?\usb#vid_XXXX&pid_XXXX&mi_NN#...",
  // in enumeration order, in whatever letter case the system gives.
  std::vector<std::string> paths;
};

// One attached device as a program's listing shows it.
struct AttachedDevice {
  std::string place;   // what a program opens it by
  std::string serial;  // empty when it has none, or none could be read
  std::string speed;   // "high speed" and the like; empty when unknown
};

// One opened device interface: the file handle and the driver interface
// handle of the Windows model in one object. Destroying it releases both;
// transfers still outstanding are aborted first and complete as failed.
// Every call may come from any thread; a backend serialises what it must.
class DeviceConnection {
 public:
  virtual ~DeviceConnection() = default;

  // Binds the driver interface on the opened file (WinUsb_Initialize; on
  // libusb, claiming the interface). Called once, right after opening.
  // False: no usable driver; the caller destroys the connection.
  virtual bool Initialize() = 0;

  // Alternate setting 0 of the interface: the number of its endpoints.
  virtual bool QueryInterfaceSettings(uint8_t& endpointCount) = 0;

  // The endpoint at index (0 to endpointCount - 1) of alternate setting 0.
  virtual bool QueryPipe(uint8_t endpointIndex, PipeInfo& pipe) = 0;

  // The device speed (kSpeedLow/Full/High). On failure, error holds the
  // Windows error number to print.
  virtual bool QueryDeviceSpeed(uint8_t& speed, uint32_t& error) = 0;

  // Starts one transfer of length bytes (at most kMaxTransferLength) on a
  // pipe and returns at once. The returned transfer's completion event is
  // set when it finishes. Null when it failed at once (closed or removed
  // link, no such pipe): no completion will ever come, as with a Windows
  // call that fails immediately.
  virtual std::shared_ptr<Transfer> StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) = 0;
  // Starts count writes of length bytes each, from blocks laid end to end,
  // in that order; their transfers as StartWrite returns them, a null one
  // for each that failed at once. A transport that can hand several writes
  // over at once (the emulator link: one send) does so.
  virtual std::vector<std::shared_ptr<Transfer>> StartWrites(uint8_t pipeId, const uint8_t* blocks, size_t count,
                                                             uint32_t length) {
    std::vector<std::shared_ptr<Transfer>> transfers;
    for (size_t i = 0; i < count; ++i) transfers.push_back(StartWrite(pipeId, blocks + i * length, length));
    return transfers;
  }
  virtual std::shared_ptr<Transfer> StartRead(uint8_t pipeId, uint32_t length) = 0;

  // Discards what the pipe holds: for an IN pipe, blocks received and not yet
  // read; outstanding transfers on the pipe are aborted.
  virtual bool FlushPipe(uint8_t pipeId) = 0;

  // Withdraws a transfer that has not finished (a cancelled URB, an aborted
  // pipe), from the caller's thread, without waiting. True when the backend
  // can withdraw transfers: the transfer then completes soon, as failed
  // unless its bytes moved first, and the caller waits for that before it
  // sends the block again. False where a started transfer cannot be
  // withdrawn (the emulator link: a W frame once sent has reached the device).
  virtual bool Abort(Transfer& /*transfer*/) { return false; }

  // Where the transfers handed to the system differ from the ones started
  // here (libusb: whole USB packets, a read bringing several blocks), the
  // connection records those in capture itself and returns true. False
  // where it has none of its own: its caller records the transfers started
  // here. Called once, before the first transfer.
  virtual bool CaptureOwnTransfers(std::shared_ptr<capture::UsbCapture> /*capture*/) { return false; }
};

class DeviceBackend {
 public:
  virtual ~DeviceBackend() = default;

  // Lists the present USB device interfaces. Never blocks for long (the
  // emulator backend waits at most its hello time-out). Where FERROLT_DEVICE
  // chooses a device (see DeviceChoice.h), the USB backends list that
  // device's interfaces only.
  virtual InterfaceListing ListInterfaces() = 0;

  // The second search, for when no listed path names the wanted interface:
  // the paths its device node registered under interface classes of its own
  // (Windows: the node whose hardware id is USB\VID_xxxx&PID_xxxx&MI_nn and
  // its DeviceInterfaceGUIDs). Empty where the listing already holds every
  // interface.
  virtual std::vector<std::string> ListRegisteredInterfaces(const UsbInterfaceId& /*wanted*/) { return {}; }

  // No listed interface had the wanted ids and interface: says on standard
  // error, once a run, where the user can look (the device's ids, its
  // driver or access rights). Default: nothing.
  virtual void HintNotFound(const UsbInterfaceId& /*wanted*/) {}

  // How the device behind a listed path shows when several match: the values
  // FERROLT_DEVICE takes for it (its place, "serial:NUMBER") and its speed, in
  // one line. Empty where the backend knows no more than the path.
  virtual std::string DescribeDevice(const std::string& /*path*/) { return {}; }

  // The device behind a path of the last listing; empty where the backend
  // knows no more than the path.
  virtual std::optional<AttachedDevice> Identify(const std::string& /*path*/) { return std::nullopt; }

  // Opens the interface that a listed path names (the CreateFile step; the
  // path may have been lower-cased since it was listed). Null when it cannot
  // be opened.
  virtual std::unique_ptr<DeviceConnection> Open(const std::string& path) = 0;
};

// The backend this process uses: the emulator link when FERROLT_EMULATOR is
// set, otherwise the platform's USB backend; its transfers recorded when
// FERROLT_TRACE names a capture file. Its hints go to hints, which must
// outlive it.
std::unique_ptr<DeviceBackend> CreateDefaultBackend(HintSink& hints = StandardErrorHints());

// A program names the device by its place instead: "emulator:ADDRESS" (an
// address as FERROLT_EMULATOR takes it) or what FERROLT_DEVICE takes; null
// or empty is CreateDefaultBackend(). Null for an emulator without address.
std::unique_ptr<DeviceBackend> CreateBackendFor(const char* place, HintSink& hints);

}  // namespace ferrolt::platform
