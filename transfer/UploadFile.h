// The upload worker. The link is open (or failed to open) when it starts.
#pragma once

#include <string>

#include "transfer/OperationContext.h"

namespace ferrolt {

void UploadFile(const OperationContext& op, const std::string& localPath);

}  // namespace ferrolt
