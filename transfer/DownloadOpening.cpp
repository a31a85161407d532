#include "transfer/DownloadOpening.h"

#include <string>

#include "link/Reporting.h"
#include "transfer/Progress.h"

namespace ferrolt {

bool OpenDownload(const OperationContext& op, OutputFile& output, const std::string& savePath,
                  const char* destination, const std::string& refusal) {
  op.progress.ProgressChangeCallBack(kProgressStarted);
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
  op.console.Print("SPI SUPPORT IS TURNED ON!\n");
  return true;
}

}  // namespace ferrolt
