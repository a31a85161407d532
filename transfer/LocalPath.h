// A local path named as the file to send.
#pragma once

#include <string>

#include "transfer/OperationContext.h"

namespace ferrolt {

// A folder opens as a file on some systems and would be measured as a file
// of any size: it is a file that cannot be opened.
bool NamesAFolder(const std::string& path);

// The log line of a file that cannot be opened, and the note of a folder.
void ReportUnopenableFile(const OperationContext& op, const std::string& path);

}  // namespace ferrolt
