// The file download worker. The link is open (or failed to open) when it
// starts.
#pragma once

#include <string>

#include "transfer/OperationContext.h"

namespace ferrolt {

void DownloadFile(const OperationContext& op, const std::string& devicePath, const std::string& savePath);

}  // namespace ferrolt
