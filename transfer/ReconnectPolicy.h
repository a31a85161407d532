// How a worker gets a block through a link that may fail under it: write it;
// after a failed write close the link, pause, reopen it and write the block
// again. The rounds are bounded, and a cancel or the process teardown ends
// them. What the exchanges prescribe differently is a field.
#pragma once

#include "link/DevicePacket.h"
#include "transfer/OperationContext.h"

namespace ferrolt {

struct ReconnectPolicy {
  // Names the block in the line of a worker that gives up.
  const char* subject;
  // Logged after each failed write; null for none.
  const char* failureLine = nullptr;
  // The CLI mode switches and the CLI command go out once: after the reopen
  // the device may have taken them already.
  bool resend = true;
  // The upload's device gets a second pause after the reopen.
  bool pauseAfterReopen = false;
};

enum class SendResult {
  Written,
  Reopened,  // not written; the link was reopened, and the policy sends no more
  Stopped,   // a cancel or the teardown ended the rounds
  GaveUp,    // limits::kMaxReconnectRounds writes failed; said in the log
  LinkLost,  // the link could not be reopened; said on the console
};

// reopened, when given, is set when the block went out again after a reopen.
SendResult SendWithReconnect(const OperationContext& op, const Block& block, const ReconnectPolicy& policy,
                             bool* reopened = nullptr);

}  // namespace ferrolt
