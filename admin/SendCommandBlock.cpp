#include "admin/SendCommandBlock.h"

#include <cstdio>

#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "transfer/Reports.h"

namespace ferrolt {

namespace {

constexpr int kProgressStarted = 5;

void Report(ILogMessageCallBack* log, const char* message) {
  if (log != nullptr) log->LogMessageCallBack(message);
}

}  // namespace

void SendCommandBlock(const OperationContext& op, const uint8_t* block, const char* sentMessage,
                      const char* failedMessage, const char* subject) {
  if (!op.Connect()) {
    op.End();
    return;
  }
  ReportProgress(op.progress, kProgressStarted);
  if (!op.Running()) {
    op.End();
    return;
  }
  std::printf("SPI SUPPORT IS TURNED ON!\n");
  for (int attempt = 1;; ++attempt) {
    if (op.link.WritePacket(block, kBlockSize, op.log) == TransferStatus::Done) {
      Report(op.log, sentMessage);
      break;
    }
    Report(op.log, failedMessage);
    // A cancel does not reach this loop, so it needs a bound of its own.
    if (attempt >= limits::kMaxReconnectRounds) {
      if (op.log != nullptr)
        op.log->LogMessageCallBack("Error: Giving up after %d failed attempts to send %s.", attempt, subject);
      op.End();
      return;
    }
    if (op.TearingDown() || !op.Reconnect()) {
      op.End();
      return;
    }
  }
  ReportProgress(op.progress, kProgressDone);
  op.EndDone();
}

}  // namespace ferrolt
