#include "transfer/DownloadOpening.h"

#include <cstdio>
#include <string>

#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "transfer/Reports.h"

namespace ferrolt {

namespace {

constexpr int kProgressStarted = 5;

}  // namespace

bool OpenDownload(const OperationContext& op, OutputFile& output, const std::string& savePath,
                  const char* destination, const std::string& refusal) {
  ReportProgress(op.progress, kProgressStarted);
  if (!op.Running()) {
    op.link.CloseDevice();
    return false;
  }
  if (!refusal.empty()) {
    LogText(op.log, refusal);
    op.End();
    return false;
  }
  if (!output.Create(savePath)) {
    LogText(op.log, std::string("Error: Can not find specified ") + destination + " destination path - " + savePath);
    op.End();
    return false;
  }
  std::printf("SPI SUPPORT IS TURNED ON!\n");
  return true;
}

bool SendDownloadRequest(const OperationContext& op, const uint8_t* request, const char* subject) {
  for (int attempt = 1;; ++attempt) {
    if (op.link.WritePacket(request, kBlockSize, op.log) == TransferStatus::Done) return true;
    if (attempt == limits::kMaxReconnectRounds) {
      LogText(op.log, std::string("Error: The ") + subject + " request could not be sent after " +
                       std::to_string(attempt) + " attempts; " + subject + " stopped.");
      return false;
    }
    if (!op.Reconnect()) return false;
  }
}

}  // namespace ferrolt
