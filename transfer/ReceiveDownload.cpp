#include "transfer/ReceiveDownload.h"

#include <chrono>
#include <string>
#include <utility>

#include "link/Reporting.h"

namespace ferrolt {

namespace {

enum class Step { Next, Complete, Refused };

constexpr const char* kReadDataLabel = "Read data :";

// The line of a block read. Hex digits hold no '%': the line goes in as its
// own format, without the escaped copy LogText would make of it.
void LogBlockRead(ILogMessageCallBack& log, const Block& block) {
  std::string line = kReadDataLabel;
  line += BytesToHex(block.data(), kBlockSize);
  log.LogMessageCallBack(std::move(line));
}

void TakeStartReply(const Block& block, const DownloadReplies& replies, DownloadAudit& audit, Receipt& receipt) {
  const bool readable = ReadStartNumbers(block.data(), replies.markers, receipt.size, receipt.total);
  audit.StartReply(receipt.size, receipt.total, readable);
  if (replies.started) replies.started(receipt);
  receipt.received = 0;
}

// A well-formed block of the download's type.
Step TakeReply(const Block& block, const DownloadReplies& replies, OutputFile& output, DownloadAudit& audit,
               Receipt& receipt) {
  switch (ClassifyReply(block.data(), replies.markers)) {
    case ReplyKind::Start:
      TakeStartReply(block, replies, audit, receipt);
      return Step::Next;
    case ReplyKind::End:
      receipt.received = 0;
      return Step::Complete;
    case ReplyKind::Data:
      break;
  }
  const DataVerdict verdict = replies.data(block, receipt);
  if (verdict == DataVerdict::Refuse) return Step::Refused;
  ++receipt.received;
  SaveDataPacket(block, output, audit);
  return verdict == DataVerdict::TakeAndEnd ? Step::Complete : Step::Next;
}

}  // namespace

ReceiveEnd ReceiveDownload(const OperationContext& op, const DownloadReplies& replies, OutputFile& output,
                           DownloadAudit& audit, Receipt& receipt) {
  auto lastProgress = std::chrono::steady_clock::now();
  for (;;) {
    Block block{};
    if (!op.ReadWithinSilenceLimit(block.data(), lastProgress)) return ReceiveEnd::Stopped;
    if (replies.logEveryBlock) LogBlockRead(op.log, block);
    if (PacketTypeOf(block.data()) != static_cast<uint8_t>(replies.type)) continue;
    if (!PacketCrcMatches(block.data())) {
      LogText(op.log, "ERROR: CRC FAILED - " + BytesToHex(block.data(), kBlockSize));
      continue;
    }
    lastProgress = std::chrono::steady_clock::now();
    switch (TakeReply(block, replies, output, audit, receipt)) {
      case Step::Next:
        break;
      case Step::Complete:
        output.Close();
        return ReceiveEnd::Complete;
      case Step::Refused:
        return ReceiveEnd::Refused;
    }
  }
}

}  // namespace ferrolt
