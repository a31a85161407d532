// The file download: one request naming the device path, then the device's
// start reply, the file's data packets in arrival order, and its end reply.
// The host acknowledges nothing; it reads, checks and writes.
#include <cstdio>
#include <string>

#include "transfer/DownloadFile.h"

#include "link/DevicePacket.h"
#include "transfer/DownloadOpening.h"
#include "transfer/DownloadReply.h"
#include "transfer/OutputFile.h"
#include "transfer/Reports.h"

namespace ferrolt {

namespace {

constexpr int kProgressDone = 100;
constexpr char kRequestPrefix[] = "Starting download ";
// The request text and its terminating zero must fit the payload.
constexpr size_t kMaxDevicePathLength = kPayloadSize - 1 - (sizeof kRequestPrefix - 1);
static_assert(kMaxDevicePathLength == 38);

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
  // Data packets written since the start reply, kept apart from the
  // received count (which the end reply resets) to tell a short file.
  int32_t written = 0;
  for (bool done = false; !done;) {
    Block block{};
    if (!op.ReadWithinSilenceLimit(block.data())) {
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
    switch (ClassifyReply(block.data(), kFileDownloadMarkers)) {
      case ReplyKind::Start:
        ReadStartNumbers(block.data(), kFileDownloadMarkers, fileSize, total);
        received = 0;
        written = 0;
        break;
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
        ++written;
        output.Append(block.data() + kPayloadOffset, DataLength(block.data()));
        break;
    }
  }
  output.Close();
  if (log != nullptr) {
    log->LogMessageCallBack("Total file size = %d , Total packets = %d\n", static_cast<int>(fileSize),
                            static_cast<int>(total));
  }
  ReportShortDownload(written, total, savePath);
  ReportProgress(op.progress, kProgressDone);
  std::fflush(stdout);
  op.End();
}

}  // namespace ferrolt
