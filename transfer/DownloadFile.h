// The file download worker. The link is open (or failed to open) when it
// starts.
#pragma once

#include <optional>
#include <string>

#include "link/DevicePacket.h"
#include "transfer/OperationContext.h"
#include "transfer/ReceiveDownload.h"

namespace ferrolt {

// The request for devicePath; nothing when the path is too long for it.
std::optional<Block> FileDownloadRequest(const std::string& devicePath);

// How the file download takes the device's replies; console gets its lines.
DownloadReplies FileDownloadReplies(ConsoleSink& console);

void DownloadFile(const OperationContext& op, const std::string& devicePath, const std::string& savePath);

}  // namespace ferrolt
