#include "transfer/ReconnectPolicy.h"

#include "link/Limits.h"
#include "link/Reporting.h"

namespace ferrolt {

namespace {

void ReportGivingUp(const OperationContext& op, int attempts, const char* subject) {
  op.log.LogMessageCallBack("Error: Giving up after %d failed attempts to send %s.", attempts, subject);
}

}  // namespace

SendResult SendWithReconnect(const OperationContext& op, const Block& block, const ReconnectPolicy& policy,
                             bool* reopened) {
  for (int attempt = 1;; ++attempt) {
    if (op.link.WritePacket(block.data(), kBlockSize, &op.log) == TransferStatus::Done) {
      if (reopened != nullptr) *reopened = attempt > 1;
      return SendResult::Written;
    }
    if (policy.failureLine != nullptr) LogText(op.log, policy.failureLine);
    if (op.Stopped()) return SendResult::Stopped;
    if (policy.resend && attempt == limits::kMaxReconnectRounds) {
      ReportGivingUp(op, attempt, policy.subject);
      return SendResult::GaveUp;
    }
    if (!op.Reconnect()) return op.Stopped() ? SendResult::Stopped : SendResult::LinkLost;
    if (!policy.resend) return SendResult::Reopened;
    if (policy.pauseAfterReopen && !op.PauseUnlessStopped(limits::kReconnectPause)) return SendResult::Stopped;
  }
}

}  // namespace ferrolt
