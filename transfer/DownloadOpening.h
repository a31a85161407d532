// The opening both downloads share, once the link is open.
#pragma once

#include <cstdint>
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

// The request block that opens a download, written; after each failed write
// a reconnect and the request again (a device that never saw it would send
// nothing), at most limits::kMaxReconnectRounds writes. False, after its own
// line, when the download must stop; subject names the download in the
// give-up line.
bool SendDownloadRequest(const OperationContext& op, const uint8_t* request, const char* subject);

}  // namespace ferrolt
