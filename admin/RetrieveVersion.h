// The version exchange: one request, one reply, the version text to the
// version callback. The link is open (or failed to open) when it starts.
#pragma once

#include "transfer/OperationContext.h"

namespace ferrolt {

void RetrieveVersion(const OperationContext& op, IVersionInfoReadyCallBack& version, bool verbose);

}  // namespace ferrolt
