// One opened device interface on WinUSB: the device file, the WinUSB
// interface handle bound on it, and the transfers still in flight on them.
#pragma once

#include <windows.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "platform/DeviceBackend.h"
#include "platform/Hint.h"
#include "platform/winusb/WinUsbApi.h"
#include "platform/winusb/WinUsbTransfer.h"

namespace ferrolt::platform {

// How long closing waits for aborted transfers to come back before their
// records are left to the system.
inline constexpr std::chrono::milliseconds kWinUsbAbortWait{1000};

class WinUsbConnection final : public DeviceConnection {
 public:
  // Takes over a device file opened for overlapped I/O; a driver that fails
  // is hinted to hints.
  WinUsbConnection(const WinUsbApi& api, HANDLE deviceFile, HintSink& hints);
  // Aborts what is in flight, waits for it (bounded), frees the WinUSB
  // handle and closes the file.
  ~WinUsbConnection() override;
  WinUsbConnection(const WinUsbConnection&) = delete;
  WinUsbConnection& operator=(const WinUsbConnection&) = delete;

  bool Initialize() override;
  bool QueryInterfaceSettings(uint8_t& endpointCount) override;
  bool QueryPipe(uint8_t endpointIndex, PipeInfo& pipe) override;
  bool QueryDeviceSpeed(uint8_t& speed, uint32_t& error) override;
  std::shared_ptr<Transfer> StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) override;
  std::shared_ptr<Transfer> StartRead(uint8_t pipeId, uint32_t length) override;
  bool FlushPipe(uint8_t pipeId) override;
  // Aborts every transfer on the transfer's pipe (WinUsb_AbortPipe).
  bool Abort(Transfer& transfer) override;

 private:
  std::shared_ptr<Transfer> Start(uint8_t pipeId, const uint8_t* data, uint32_t length);
  // Settles and drops the transfers that have finished, noting the pipes
  // whose endpoint one of them found halted.
  void ForgetFinishedLocked();

  const WinUsbApi& api_;
  const HANDLE deviceFile_;
  HintSink& hints_;
  // Set once by Initialize, before the connection is shared.
  WINUSB_INTERFACE_HANDLE winUsb_ = nullptr;

  std::mutex mutex_;  // guards inFlight_ and halted_
  // Every transfer started and not yet seen finished, whether or not its
  // caller still waits for it.
  std::vector<std::shared_ptr<WinUsbTransfer>> inFlight_;
  // Pipes to reset before their next transfer.
  std::set<uint8_t> halted_;
};

}  // namespace ferrolt::platform
