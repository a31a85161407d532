// The reply loop both downloads share: the device's start reply, its data
// packets written as they come, and its end reply, until the end reply, a
// silence past the bound or the teardown. Blocks of another type are passed
// over; a block with a bad CRC is logged and dropped.
#pragma once

#include <cstdint>
#include <functional>

#include "link/DevicePacket.h"
#include "transfer/DownloadAudit.h"
#include "transfer/DownloadReply.h"
#include "transfer/OperationContext.h"
#include "transfer/OutputFile.h"

namespace ferrolt {

// One attempt's count and the start reply's numbers.
struct Receipt {
  // Data packets written since the last start or end reply: the number the
  // next one should carry.
  int32_t received = 0;
  int32_t size = 0;
  int32_t total = 0;
};

enum class DataVerdict {
  Take,
  TakeAndEnd,  // written, and the transfer ends with it
  Refuse,      // the attempt ends without it
};

// What tells the two downloads apart.
struct DownloadReplies {
  PacketType type;
  ReplyMarkers markers;
  // The file download logs every block it reads, in hexadecimal.
  bool logEveryBlock;
  // A start reply, its numbers read.
  std::function<void(const Receipt&)> started;
  // A data packet, before it is counted and written.
  std::function<DataVerdict(const Block&, const Receipt&)> data;
};

enum class ReceiveEnd { Complete, Refused, Stopped };

// Complete closes output.
ReceiveEnd ReceiveDownload(const OperationContext& op, const DownloadReplies& replies, OutputFile& output,
                           DownloadAudit& audit, Receipt& receipt);

}  // namespace ferrolt
