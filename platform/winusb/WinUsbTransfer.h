// One overlapped WinUSB transfer. The system signals its completion on the
// transfer's own event, which the link waits on directly; the result is
// fetched with WinUsb_GetOverlappedResult once the event is set. Its
// OVERLAPPED record and buffer stay valid until the transfer has finished,
// or for good when it never does.
#pragma once

#include <windows.h>

#include <array>
#include <chrono>
#include <memory>
#include <mutex>

#include "platform/Transfer.h"
#include "platform/winusb/WinUsbApi.h"

namespace ferrolt::platform {

class WinUsbTransfer final : public Transfer {
 public:
  // data is the block to write, or null for a read.
  WinUsbTransfer(const WinUsbApi& api, WINUSB_INTERFACE_HANDLE winUsb, uint8_t pipeId, const uint8_t* data,
                 uint32_t length);

  uint8_t PipeId() const { return pipeId_; }

  // Once settled: whether the transfer failed as a halted endpoint fails it,
  // which leaves the pipe halted until it is reset.
  bool Stalled();

  // Issues the transfer. False when it failed at once: then no completion
  // will ever come.
  bool Start();

  // Before the interface handle goes: waits up to wait for the transfer to
  // finish and fetches its result; one still unfinished then is failed, and
  // its record is left to the system. Afterwards the handle is never used.
  void Settle(std::chrono::milliseconds wait);

 protected:
  void Collect() override;

 private:
  // What the system writes into while the transfer runs.
  struct Io {
    OVERLAPPED overlapped{};
    ULONG transferred = 0;
    std::array<uint8_t, kMaxTransferLength> buffer{};
  };

  void CollectLocked();

  const WinUsbApi& api_;
  const WINUSB_INTERFACE_HANDLE winUsb_;
  const uint8_t pipeId_;
  const bool isRead_;

  std::mutex mutex_;  // guards the three fields below
  bool settled_ = false;
  bool stalled_ = false;
  std::unique_ptr<Io> io_;
};

}  // namespace ferrolt::platform
