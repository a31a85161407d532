#include "admin/SendCommandBlock.h"

#include "link/Reporting.h"
#include "transfer/Progress.h"

namespace ferrolt {

void SendCommandBlock(const OperationContext& op, const Block& block, const char* sentLine,
                      const ReconnectPolicy& policy) {
  if (!op.Connect()) {
    op.End();
    return;
  }
  op.progress.ProgressChangeCallBack(kProgressStarted);
  if (!op.Running()) {
    op.End();
    return;
  }
  op.console.Print("SPI SUPPORT IS TURNED ON!\n");
  if (SendWithReconnect(op, block, policy) != SendResult::Written) {
    op.End();
    return;
  }
  LogText(op.log, sentLine);
  op.progress.ProgressChangeCallBack(kProgressDone);
  op.EndDone();
}

}  // namespace ferrolt
