// The exchange of captouch programming and the reliability test: one command
// block to the device, no answer read.
#pragma once

#include "link/DevicePacket.h"
#include "transfer/OperationContext.h"
#include "transfer/ReconnectPolicy.h"

namespace ferrolt {

// Open, progress 5, send until written under the reconnect policy (whose
// failureLine is the worker's line for a failed write), then the sent line,
// progress 100, close.
void SendCommandBlock(const OperationContext& op, const Block& block, const char* sentLine,
                      const ReconnectPolicy& policy);

}  // namespace ferrolt
