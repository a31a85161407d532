// The opening both downloads share, once the link is open.
#pragma once

#include <string>

#include "transfer/OperationContext.h"
#include "transfer/OutputFile.h"

namespace ferrolt {

// Progress 5, then (unless the run was stopped, which closes the link)
// refusal as an error line when not empty, then the output file created,
// which destination names in its error line. False when the download must
// not go on; the operation has then ended.
bool OpenDownload(const OperationContext& op, OutputFile& output, const std::string& savePath,
                  const char* destination, const std::string& refusal);

}  // namespace ferrolt
