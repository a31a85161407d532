// The log download worker. It opens the link itself.
#pragma once

#include <string>

#include "transfer/OperationContext.h"

namespace ferrolt {

void DownloadLogs(const OperationContext& op, const std::string& zipPath);

}  // namespace ferrolt
