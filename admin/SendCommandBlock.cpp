// The exchange that sends the device one command block and reads no answer.
#include <cstdio>

#include "admin/DeviceAdmin.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"

namespace ferrolt {

namespace {

void Report(ILogMessageCallBack* log, const char* message) {
  if (log != nullptr) log->LogMessageCallBack(message);
}

void ReportProgress(IProgressChangeCallBack* progress, int percent) {
  if (progress != nullptr) progress->ProgressChangeCallBack(percent);
}

}  // namespace

void DeviceAdmin::SendCommandBlock(const uint8_t* block, const char* sentMessage, const char* failedMessage,
                                   const char* subject, IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  if (!ConnectDefaultDevice(log)) {
    EndOperation();
    return;
  }
  ReportProgress(progress, 5);
  if (!OperationRunning.load()) {
    EndOperation();
    return;
  }
  std::printf("SPI SUPPORT IS TURNED ON!\n");
  for (int attempt = 1;; ++attempt) {
    if (Link.WritePacket(block, kBlockSize, log) == TransferStatus::Done) {
      Report(log, sentMessage);
      break;
    }
    Report(log, failedMessage);
    // A cancel does not reach this loop, so it needs a bound of its own.
    if (attempt >= limits::kMaxReconnectRounds) {
      if (log != nullptr)
        log->LogMessageCallBack("Error: Giving up after %d failed attempts to send %s.", attempt, subject);
      EndOperation();
      return;
    }
    if (Reader.StopRequested.load()) {  // process teardown
      EndOperation();
      return;
    }
    if (!Reconnect(log)) {
      EndOperation();
      return;
    }
  }
  ReportProgress(progress, 100);
  EndOperation();
}

}  // namespace ferrolt
