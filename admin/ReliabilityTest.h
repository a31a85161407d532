// The Operational Reliability Test: the device runs it by itself; the tool
// only starts and ends it, one ORT packet each.
#pragma once

#include <cstddef>

#include "transfer/OperationContext.h"

namespace ferrolt {

// The ORT string lives in a buffer of this size for the whole run; a longer
// one is refused before anything is sent.
inline constexpr size_t kOrtStringBufferSize = 80;
inline constexpr size_t kMaxOrtStringLength = kOrtStringBufferSize - 1;

// ortString is sent unchanged; null sends an empty text.
void StartOrt(const OperationContext& op, const char* ortString);
void EndOrt(const OperationContext& op, bool verbose);

}  // namespace ferrolt
