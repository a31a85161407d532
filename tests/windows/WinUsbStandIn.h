// A stand-in for the WinUSB driver and for the SetupAPI view of one composite
// USB device, for tests under Wine (whose winusb.dll implements almost nothing
// and whose SetupAPI lists no USB device). It behaves as Microsoft documents
// the real ones to, not as our code would like:
//  - a host write stays pending until the device takes its block, a host read
//    until the device sends a packet; the read then ends with that packet,
//    short and zero-length ones included, and a packet longer than the read
//    leaves its rest for the next read (the pipe policies ALLOW_PARTIAL_READS
//    TRUE and AUTO_FLUSH FALSE, WinUSB's defaults);
//  - WinUsb_AbortPipe is synchronous: that pipe's pending transfers have
//    completed as aborted, with whatever bytes they had moved, when it returns;
//  - a halted endpoint fails every transfer until WinUsb_ResetPipe, however
//    often the host reopens it: the halt is the device's state;
//  - blocks the device queued and the host did not read stay queued across a
//    close (a closed handle tells the device nothing, and WinUsb_FlushPipe
//    drops only what the host holds);
//  - DEVICE_SPEED is 1 for a full-speed device and 3 for a high-speed one.
#pragma once

#include <windows.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/winusb/SetupApi.h"
#include "platform/winusb/WinUsbApi.h"

namespace ferrolt::test {

using StandInBlock = std::array<uint8_t, 64>;
using StandInPacket = std::vector<uint8_t>;

inline constexpr uint8_t kStandInOutPipe = 0x02;
inline constexpr uint8_t kStandInInPipe = 0x81;

// Where SetupAPI lists the device's vendor interface (4); the composite parent
// is always listed under GUID_DEVINTERFACE_USB_DEVICE, without mi_04.
enum class StandInLayout {
  // Under GUID_DEVINTERFACE_USB_DEVICE too, its path holding mi_04.
  WithTheUsbDevices,
  // Only under the class its DeviceInterfaceGUIDs value (REG_MULTI_SZ) names,
  // as an INF registers it.
  UnderItsOwnClasses,
  // Only under the class its DeviceInterfaceGUID value (REG_SZ) names, as the
  // device's MS OS 2.0 registry property descriptor registers it.
  UnderItsOwnClass,
};

enum class StandInSpeed { Full, High };

// When the host learns that a transfer has moved its bytes: at once, or only
// when it aborts the pipe (a completion crossing the abort).
enum class Report { AtOnce, OnAbort };

const platform::WinUsbApi& StandInWinUsbApi();
const platform::SetupApi& StandInSetupApi();

struct StandInState;

// Plugged in while it exists; SetupAPI lists it and CreateFile opens it.
class StandInDevice {
 public:
  explicit StandInDevice(StandInLayout layout = StandInLayout::WithTheUsbDevices,
                         StandInSpeed speed = StandInSpeed::High);
  // Unplugs it: its pending transfers fail.
  ~StandInDevice();
  StandInDevice(const StandInDevice&) = delete;
  StandInDevice& operator=(const StandInDevice&) = delete;

  // Takes the oldest block the host wrote. False when none comes within wait.
  bool TakeBlock(StandInBlock& block, std::chrono::milliseconds wait, Report report = Report::AtOnce);
  // Queues one packet for the host's reads: at most the endpoint's packet
  // size, empty for a zero-length packet.
  void SendPacket(StandInPacket packet, Report report = Report::AtOnce);
  void SendBlock(const StandInBlock& block, Report report = Report::AtOnce);
  // Halts the OUT endpoint: the pending write and every later one fail.
  void HaltOut();
  // The path its vendor interface is listed under.
  std::string InterfacePath() const;
  // The serial number its device instance id carries.
  std::string Serial() const;

 private:
  std::shared_ptr<StandInState> state_;
};

}  // namespace ferrolt::test
