// The opening both downloads share: the output file created, then the
// request sent.
#include <cstdio>
#include <string>

#include "admin/DeviceAdmin.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "transfer/Reports.h"

namespace ferrolt {

namespace {

constexpr int kProgressStarted = 5;

}  // namespace

bool DeviceAdmin::OpenDownload(OutputFile& output, const std::string& savePath, const char* destination,
                               const std::string& refusal, IProgressChangeCallBack* progress,
                               ILogMessageCallBack* log) {
  ReportProgress(progress, kProgressStarted);
  if (!OperationRunning.load()) {
    Link.CloseDevice();
    return false;
  }
  if (!refusal.empty()) {
    LogText(log, refusal);
    EndOperation();
    return false;
  }
  if (!output.Create(savePath)) {
    LogText(log, std::string("Error: Can not find specified ") + destination + " destination path - " + savePath);
    EndOperation();
    return false;
  }
  std::printf("SPI SUPPORT IS TURNED ON!\n");
  return true;
}

bool DeviceAdmin::SendDownloadRequest(const uint8_t* request, const char* subject, ILogMessageCallBack* log) {
  for (int attempt = 1;; ++attempt) {
    if (Link.WritePacket(request, kBlockSize, log) == TransferStatus::Done) return true;
    if (attempt == limits::kMaxReconnectRounds) {
      LogText(log, std::string("Error: The ") + subject + " request could not be sent after " +
                       std::to_string(attempt) + " attempts; " + subject + " stopped.");
      return false;
    }
    if (!Reconnect(log)) return false;
  }
}

}  // namespace ferrolt
