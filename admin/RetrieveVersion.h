// The version exchange: one request, one reply, the version text to the
// version callback. The link is open (or failed to open) when it starts.
#pragma once

#include <string_view>

#include "transfer/OperationContext.h"

namespace ferrolt {

// What the version report puts before the device's version text; the report
// before it gives the raw reply.
inline constexpr std::string_view kVersionPrefix = "Version - ";

void RetrieveVersion(const OperationContext& op, IVersionInfoReadyCallBack& version, bool verbose);

}  // namespace ferrolt
