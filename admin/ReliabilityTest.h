// The Operational Reliability Test: the device runs it by itself; the tool
// only starts and ends it, one ORT packet each.
#pragma once

#include "transfer/OperationContext.h"

namespace ferrolt {

// ortString is sent unchanged; null sends an empty text.
void StartOrt(const OperationContext& op, const char* ortString);
void EndOrt(const OperationContext& op, bool verbose);

}  // namespace ferrolt
