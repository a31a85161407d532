// The exchange of captouch programming and the reliability test: one command
// block to the device, no answer read.
#pragma once

#include <cstdint>

#include "transfer/OperationContext.h"

namespace ferrolt {

// Open, progress 5, send until written (reconnecting after each failed
// write, at most limits::kMaxReconnectRounds writes), progress 100, close.
// subject names the block in the give-up line.
void SendCommandBlock(const OperationContext& op, const uint8_t* block, const char* sentMessage,
                      const char* failedMessage, const char* subject);

}  // namespace ferrolt
