// The file download: one request naming the device path, then the device's
// start reply, the file's data packets in arrival order, and its end reply.
// The host acknowledges nothing; it reads, checks and writes.
#include <chrono>
#include <cstdio>
#include <string>

#include "transfer/DownloadFile.h"

#include "link/DevicePacket.h"
#include "transfer/DownloadAudit.h"
#include "transfer/DownloadOpening.h"
#include "transfer/DownloadReply.h"
#include "transfer/OutputFile.h"
#include "transfer/Reports.h"

namespace ferrolt {

namespace {

constexpr char kRequestPrefix[] = "Starting download ";
// The request text and its terminating zero must fit the payload.
constexpr size_t kMaxDevicePathLength = kPayloadSize - 1 - (sizeof kRequestPrefix - 1);
static_assert(kMaxDevicePathLength == 38);

// A device serves a file it does not have as an empty one.
void ReportEmptyDownload(const std::string& devicePath) {
  std::fprintf(stderr, "ferrolt: the device sent no bytes of %s; the file may not exist on the device.\n",
               devicePath.c_str());
}

}  // namespace

void DownloadFile(const OperationContext& op, const std::string& devicePath, const std::string& savePath) {
  ILogMessageCallBack* const log = op.log;
  const std::string refusal = devicePath.size() > kMaxDevicePathLength
                                  ? "Error: The device path is longer than " + std::to_string(kMaxDevicePathLength) +
                                        " characters - " + devicePath
                                  : std::string();
  OutputFile output;
  if (!OpenDownload(op, output, savePath, "file", refusal)) return;

  const Block request = BuildTextPacket(PacketType::Download, std::string(kRequestPrefix) + devicePath);
  if (!SendDownloadRequest(op, request.data(), "download")) {
    op.End();
    return;
  }
  LogText(log, "Starting file download now.");

  int32_t received = 0;
  int32_t fileSize = 0;
  int32_t total = 0;
  DownloadAudit audit(savePath);
  auto lastProgress = std::chrono::steady_clock::now();
  for (bool done = false; !done;) {
    Block block{};
    if (!op.ReadWithinSilenceLimit(block.data(), lastProgress)) {
      audit.Finish(false);
      op.End();
      return;
    }
    const std::string hex = BytesToHex(block.data(), kBlockSize);
    LogText(log, "Read data :" + hex);
    if (PacketTypeOf(block.data()) != static_cast<uint8_t>(PacketType::Download)) continue;
    if (!PacketCrcMatches(block.data())) {
      LogText(log, "ERROR: CRC FAILED - " + hex);
      continue;
    }
    lastProgress = std::chrono::steady_clock::now();
    switch (ClassifyReply(block.data(), kFileDownloadMarkers)) {
      case ReplyKind::Start: {
        const bool readable = ReadStartNumbers(block.data(), kFileDownloadMarkers, fileSize, total);
        audit.StartReply(fileSize, total, readable);
        received = 0;
        break;
      }
      case ReplyKind::End:
        output.Close();
        received = 0;
        done = true;
        break;
      case ReplyKind::Data:
        if (PacketNumber(block.data()) == 0) {
          std::printf("\nThis is the actual first packet!\n");
          std::printf("Sequence = %d , Total Packets = %d\n", static_cast<int>(received), static_cast<int>(total));
          done = total == 1;
        }
        ++received;
        if (!SaveDataPacket(block, output, audit)) {
          audit.Finish(false);
          op.End();
          return;
        }
        break;
    }
  }
  output.Close();
  if (log != nullptr) {
    log->LogMessageCallBack("Total file size = %d , Total packets = %d\n", static_cast<int>(fileSize),
                            static_cast<int>(total));
  }
  if (!audit.Finish(true)) op.outcome.MarkIncomplete();
  if (audit.BytesArrived() == 0) ReportEmptyDownload(devicePath);
  ReportProgress(op.progress, kProgressDone);
  std::fflush(stdout);
  op.EndDone();
}

}  // namespace ferrolt
