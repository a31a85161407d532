// The proof of an upload: the file read back from the device through the
// download exchange and compared byte for byte with the local one. Nothing
// of the read-back reaches the console lines or the log; the verdict is one
// note, and a copy that differs, or cannot be read back, makes the outcome
// incomplete.
#pragma once

#include <string>

#include "transfer/OperationContext.h"

namespace ferrolt {

// deviceName is the name the upload gave the file in the device's /tmp/.
void ReadBackUpload(const OperationContext& op, const std::string& localPath, const std::string& deviceName);

}  // namespace ferrolt
