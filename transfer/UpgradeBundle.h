// The upgrade worker. The link is open (or failed to open) when it starts,
// and the response reader runs beside it on op.reader.
#pragma once

#include <string>

#include "transfer/OperationContext.h"

namespace ferrolt {

void UpgradeBundle(const OperationContext& op, const std::string& bundlePath);

}  // namespace ferrolt
