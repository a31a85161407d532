#include "platform/winusb/WinUsbConnection.h"

#include <algorithm>
#include <set>

#include "platform/winusb/SetupHints.h"

namespace ferrolt::platform {
namespace {

constexpr UCHAR kAlternateSetting = 0;
constexpr std::chrono::milliseconds kNoWait{0};

PipeType PipeTypeOf(USBD_PIPE_TYPE type) {
  switch (type) {
    case UsbdPipeTypeIsochronous:
      return PipeType::Isochronous;
    case UsbdPipeTypeBulk:
      return PipeType::Bulk;
    case UsbdPipeTypeInterrupt:
      return PipeType::Interrupt;
    default:
      return PipeType::Control;
  }
}

}  // namespace

WinUsbConnection::WinUsbConnection(const WinUsbApi& api, HANDLE deviceFile, HintSink& hints)
    : api_(api), deviceFile_(deviceFile), hints_(hints) {}

WinUsbConnection::~WinUsbConnection() {
  if (winUsb_ != nullptr) {
    std::set<uint8_t> pipes;
    for (const auto& transfer : inFlight_) pipes.insert(transfer->PipeId());
    for (uint8_t pipe : pipes) api_.AbortPipe(winUsb_, pipe);
    const auto deadline = std::chrono::steady_clock::now() + kWinUsbAbortWait;
    for (const auto& transfer : inFlight_) transfer->Settle(TimeLeft(deadline));
    inFlight_.clear();
    api_.Free(winUsb_);
  }
  CloseHandle(deviceFile_);
}

bool WinUsbConnection::Initialize() {
  WINUSB_INTERFACE_HANDLE winUsb = nullptr;
  if (!api_.Initialize(deviceFile_, &winUsb)) {
    HintDriverFailure(hints_, GetLastError());
    return false;
  }
  winUsb_ = winUsb;
  return true;
}

bool WinUsbConnection::QueryInterfaceSettings(uint8_t& endpointCount) {
  USB_INTERFACE_DESCRIPTOR setting{};
  if (!api_.QueryInterfaceSettings(winUsb_, kAlternateSetting, &setting)) return false;
  endpointCount = setting.bNumEndpoints;
  return true;
}

bool WinUsbConnection::QueryPipe(uint8_t endpointIndex, PipeInfo& pipe) {
  WINUSB_PIPE_INFORMATION information{};
  if (!api_.QueryPipe(winUsb_, kAlternateSetting, endpointIndex, &information)) return false;
  pipe.type = PipeTypeOf(information.PipeType);
  pipe.pipeId = information.PipeId;
  pipe.maximumPacketSize = information.MaximumPacketSize;
  return true;
}

bool WinUsbConnection::QueryDeviceSpeed(uint8_t& speed, uint32_t& error) {
  UCHAR value = 0;
  ULONG length = sizeof value;
  if (!api_.QueryDeviceInformation(winUsb_, DEVICE_SPEED, &length, &value)) {
    error = GetLastError();
    return false;
  }
  speed = value;
  return true;
}

std::shared_ptr<Transfer> WinUsbConnection::StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) {
  return data != nullptr ? Start(pipeId, data, length) : nullptr;
}

std::shared_ptr<Transfer> WinUsbConnection::StartRead(uint8_t pipeId, uint32_t length) {
  return Start(pipeId, nullptr, length);
}

bool WinUsbConnection::FlushPipe(uint8_t pipeId) {
  // Aborted transfers finish as failed; their records are settled later.
  api_.AbortPipe(winUsb_, pipeId);
  const bool flushed = api_.FlushPipe(winUsb_, pipeId) != FALSE;
  std::lock_guard<std::mutex> lock(mutex_);
  ForgetFinishedLocked();
  return flushed;
}

// WinUsb_AbortPipe is synchronous: the pipe's transfers have completed when
// it returns, each as aborted unless its bytes had all moved.
bool WinUsbConnection::Abort(Transfer& transfer) {
  uint8_t pipeId = 0;
  bool inFlight = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& candidate : inFlight_) {
      if (candidate.get() != &transfer) continue;
      pipeId = candidate->PipeId();
      inFlight = true;
      break;
    }
  }
  // One no longer in flight has already finished: there is nothing to withdraw.
  if (inFlight) api_.AbortPipe(winUsb_, pipeId);
  return true;
}

std::shared_ptr<Transfer> WinUsbConnection::Start(uint8_t pipeId, const uint8_t* data, uint32_t length) {
  auto transfer = std::make_shared<WinUsbTransfer>(api_, winUsb_, pipeId, data, length);
  std::lock_guard<std::mutex> lock(mutex_);
  ForgetFinishedLocked();
  // A halted endpoint fails every transfer, across reopening too, until its
  // pipe is reset (WinUsb_ResetPipe: clears the stall condition); done here,
  // on the caller's thread, never while a completion is being handled.
  if (halted_.erase(pipeId) != 0) api_.ResetPipe(winUsb_, pipeId);
  if (!transfer->Start()) return nullptr;
  inFlight_.push_back(transfer);
  return transfer;
}

void WinUsbConnection::ForgetFinishedLocked() {
  const auto finished = std::remove_if(inFlight_.begin(), inFlight_.end(), [this](const auto& transfer) {
    if (!transfer->IsComplete()) return false;
    transfer->Settle(kNoWait);
    if (transfer->Stalled()) halted_.insert(transfer->PipeId());
    return true;
  });
  inFlight_.erase(finished, inFlight_.end());
}

}  // namespace ferrolt::platform
