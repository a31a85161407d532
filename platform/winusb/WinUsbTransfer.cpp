#include "platform/winusb/WinUsbTransfer.h"

#include <cstring>

namespace ferrolt::platform {
namespace {

constexpr BOOL kDoNotWait = FALSE;
// What a transfer on a halted endpoint fails with: the stack's
// USBD_STATUS_STALL_PID reaches the caller as this Windows error ("How to
// recover from USB pipe errors": the pipe takes no request until it is reset).
constexpr DWORD kStallError = ERROR_GEN_FAILURE;

}  // namespace

WinUsbTransfer::WinUsbTransfer(const WinUsbApi& api, WINUSB_INTERFACE_HANDLE winUsb, uint8_t pipeId,
                               const uint8_t* data, uint32_t length)
    : Transfer(length), api_(api), winUsb_(winUsb), pipeId_(pipeId), isRead_(data == nullptr), io_(new Io) {
  if (data != nullptr) std::memcpy(io_->buffer.data(), data, RequestedLength());
}

bool WinUsbTransfer::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  io_->overlapped.hEvent = static_cast<HANDLE>(Completion().NativeHandle());
  if (io_->overlapped.hEvent == nullptr) return false;
  const BOOL done = isRead_ ? api_.ReadPipe(winUsb_, pipeId_, io_->buffer.data(), RequestedLength(), &io_->transferred,
                                            &io_->overlapped)
                            : api_.WritePipe(winUsb_, pipeId_, io_->buffer.data(), RequestedLength(), &io_->transferred,
                                             &io_->overlapped);
  // Done at once or pending: either way the event is set when it finishes.
  return done != FALSE || GetLastError() == ERROR_IO_PENDING;
}

void WinUsbTransfer::Collect() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!settled_) CollectLocked();
}

// The count is passed on a failure too: a transfer aborted or cancelled as it
// completed reports ERROR_OPERATION_ABORTED with its bytes moved.
void WinUsbTransfer::CollectLocked() {
  DWORD count = 0;
  const BOOL succeeded = api_.GetOverlappedResult(winUsb_, &io_->overlapped, &count, kDoNotWait);
  if (!succeeded && GetLastError() == kStallError) stalled_ = true;
  Complete(succeeded != FALSE, isRead_ ? io_->buffer.data() : nullptr, count);
}

bool WinUsbTransfer::Stalled() {
  std::lock_guard<std::mutex> lock(mutex_);
  return stalled_;
}

void WinUsbTransfer::Settle(std::chrono::milliseconds wait) {
  const bool finished = Completion().WaitFor(wait);
  std::lock_guard<std::mutex> lock(mutex_);
  if (settled_) return;
  settled_ = true;
  if (finished) {
    CollectLocked();
    return;
  }
  // The system may still write into the record: it is never freed.
  static_cast<void>(io_.release());
  Complete(false, nullptr, 0);
}

}  // namespace ferrolt::platform
