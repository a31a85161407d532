// The file download: one request naming the device path, then the device's
// start reply, the file's data packets in arrival order, and its end reply.
// The host acknowledges nothing; it reads, checks and writes.
#include <string>

#include "transfer/DownloadFile.h"

#include "link/DevicePacket.h"
#include "link/Reporting.h"
#include "transfer/DownloadAudit.h"
#include "transfer/DownloadOpening.h"
#include "transfer/Progress.h"
#include "transfer/ReceiveDownload.h"
#include "transfer/ReconnectPolicy.h"

namespace ferrolt {

namespace {

constexpr char kRequestPrefix[] = "Starting download ";
// The request text and its terminating zero must fit the payload.
constexpr size_t kMaxDevicePathLength = kPayloadSize - 1 - (sizeof kRequestPrefix - 1);
static_assert(kMaxDevicePathLength == 38);

// A path the request cannot carry is refused before anything is sent.
std::string RefusalOf(const std::string& devicePath) {
  if (devicePath.size() <= kMaxDevicePathLength) return {};
  return "Error: The device path is longer than " + std::to_string(kMaxDevicePathLength) + " characters - " +
         devicePath;
}

// The first data packet is announced on the console; a transfer of one
// packet ends with it.
DataVerdict TakeData(ConsoleSink& console, const Block& block, const Receipt& receipt) {
  if (PacketNumber(block.data()) != 0) return DataVerdict::Take;
  console.Print("\nThis is the actual first packet!\n");
  console.PrintFormatted("Sequence = %d , Total Packets = %d\n", static_cast<int>(receipt.received),
                         static_cast<int>(receipt.total));
  return receipt.total == 1 ? DataVerdict::TakeAndEnd : DataVerdict::Take;
}

// The totals, the audit's verdict, and the note of a device that served a
// file it does not have as an empty one.
void FinishDownload(const OperationContext& op, const std::string& devicePath, DownloadAudit& audit, const Receipt& receipt) {
  op.log.LogMessageCallBack("Total file size = %d , Total packets = %d\n", static_cast<int>(receipt.size),
                            static_cast<int>(receipt.total));
  if (!audit.Finish(true)) op.outcome.MarkIncomplete();
  if (audit.BytesArrived() == 0)
    op.console.Note("the device sent no bytes of " + devicePath + "; the file may not exist on the device.");
  op.progress.ProgressChangeCallBack(kProgressDone);
  op.console.Flush();
  op.EndDone();
}

}  // namespace

std::optional<Block> FileDownloadRequest(const std::string& devicePath) {
  if (devicePath.size() > kMaxDevicePathLength) return std::nullopt;
  return BuildTextPacket(PacketType::Download, std::string(kRequestPrefix) + devicePath);
}

DownloadReplies FileDownloadReplies(ConsoleSink& console) {
  return DownloadReplies{
      .type = PacketType::Download,
      .markers = kFileDownloadMarkers,
      .logEveryBlock = true,
      .started = nullptr,
      .data = [&console](const Block& block, const Receipt& now) { return TakeData(console, block, now); },
  };
}

void DownloadFile(const OperationContext& op, const std::string& devicePath, const std::string& savePath) {
  OutputFile output;
  if (!OpenDownload(op, output, savePath, "file", RefusalOf(devicePath))) return;
  if (SendWithReconnect(op, *FileDownloadRequest(devicePath), {.subject = "the download request"}) !=
      SendResult::Written) {
    op.End();
    return;
  }
  LogText(op.log, "Starting file download now.");

  DownloadAudit audit(savePath, op.console);
  Receipt receipt;
  if (ReceiveDownload(op, FileDownloadReplies(op.console), output, audit, receipt) != ReceiveEnd::Complete) {
    audit.Finish(false);
    op.End();
    return;
  }
  FinishDownload(op, devicePath, audit, receipt);
}

}  // namespace ferrolt
