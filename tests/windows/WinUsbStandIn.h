// A stand-in for the WinUSB driver, for tests under Wine (whose winusb.dll
// implements almost nothing). The device is the server end of a named pipe;
// the backend opens the client end with CreateFileA as it opens a device
// interface, and the stand-in's functions do real overlapped I/O on it. A
// host write stays pending until the device takes its block (the pipe keeps
// no buffer in that direction); a host read until the device sends one.
#pragma once

#include <windows.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

#include "platform/winusb/WinUsbApi.h"

namespace ferrolt::test {

using StandInBlock = std::array<uint8_t, 64>;

inline constexpr uint8_t kStandInOutPipe = 0x02;
inline constexpr uint8_t kStandInInPipe = 0x81;
inline constexpr uint8_t kStandInSpeed = 3;  // high speed

// WinUSB calls on any other pipe fail with ERROR_INVALID_PARAMETER.
const platform::WinUsbApi& StandInWinUsbApi();

class StandInDevice {
 public:
  StandInDevice();
  ~StandInDevice();
  StandInDevice(const StandInDevice&) = delete;
  StandInDevice& operator=(const StandInDevice&) = delete;

  // The path the backend opens: \\.\pipe\<unique name>.
  const std::string& Path() const { return path_; }

  // Takes the oldest block the host wrote, which completes that write.
  // False when none comes within wait.
  bool TakeBlock(StandInBlock& block, std::chrono::milliseconds wait);
  // Sends one block for the host's reads.
  bool SendBlock(StandInBlock block);

 private:
  std::string path_;
  HANDLE pipe_ = INVALID_HANDLE_VALUE;
};

}  // namespace ferrolt::test
