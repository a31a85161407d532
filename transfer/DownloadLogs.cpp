// The log download: the device's log archive as numbered packets, with a
// sequence check whose failure asks for the whole archive again. The file is
// emptied before each new attempt, so the archive on disk is the one attempt
// that reached the end reply.
#include <chrono>
#include <cstdio>
#include <string>

#include "transfer/DownloadLogs.h"

#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "transfer/DownloadAudit.h"
#include "transfer/DownloadOpening.h"
#include "transfer/DownloadReply.h"
#include "transfer/FilePackets.h"
#include "transfer/OutputFile.h"
#include "transfer/Reports.h"

namespace ferrolt {

namespace {

constexpr const char* kRequestText = "Download Logs";

enum class AttemptEnd { Complete, SequenceError, Stopped };

// The receive state of one attempt.
struct LogReceipt {
  int32_t received = 0;
  int32_t archiveSize = 0;
  int32_t total = 0;
  int lastPercent = -1;
};

// Logs the percentage before this packet is counted; while no total is known
// there is nothing to divide by, so nothing is logged.
void LogPercent(ILogMessageCallBack* log, LogReceipt& receipt, bool always) {
  if (receipt.total == 0) return;
  const int percent = PercentOf(receipt.received, receipt.total);
  if (!always && percent == receipt.lastPercent) return;
  receipt.lastPercent = percent;
  log->LogMessageCallBack("Download Log Progress: %d%%%%", percent);
}

}  // namespace

void DownloadLogs(const OperationContext& op, const std::string& zipPath) {
  ILogMessageCallBack* const log = op.log;
  if (!op.Connect()) {
    op.End();
    return;
  }
  OutputFile output;
  if (!OpenDownload(op, output, zipPath, "log", std::string())) return;

  const Block request = BuildTextPacket(PacketType::Logs, kRequestText);
  // Attempts that ended in a sequence error are bounded.
  int restarts = 0;
  DownloadAudit audit(zipPath);
  for (;;) {
    if (!SendDownloadRequest(op, request.data(), "log download")) {
      op.End();
      return;
    }
    LogText(log, "Starting download logs now.");

    LogReceipt receipt;
    AttemptEnd end = AttemptEnd::Stopped;
    auto lastProgress = std::chrono::steady_clock::now();
    for (bool attempting = true; attempting;) {
      Block block{};
      if (!op.ReadWithinSilenceLimit(block.data(), lastProgress)) break;
      if (PacketTypeOf(block.data()) != static_cast<uint8_t>(PacketType::Logs)) continue;
      const std::string hex = BytesToHex(block.data(), kBlockSize);
      if (!PacketCrcMatches(block.data())) {
        LogText(log, "ERROR: CRC FAILED - " + hex);
        continue;
      }
      lastProgress = std::chrono::steady_clock::now();
      const int32_t number = static_cast<int32_t>(PacketNumber(block.data()));
      switch (ClassifyReply(block.data(), kLogDownloadMarkers)) {
        case ReplyKind::Start: {
          const bool readable = ReadStartNumbers(block.data(), kLogDownloadMarkers, receipt.archiveSize, receipt.total);
          audit.StartReply(receipt.archiveSize, receipt.total, readable);
          std::printf("%s\n", zipPath.c_str());
          receipt.received = 0;
          break;
        }
        case ReplyKind::End:
          output.Close();
          receipt.received = 0;
          end = AttemptEnd::Complete;
          attempting = false;
          break;
        case ReplyKind::Data:
          if (number != 0 && number != receipt.received && number > receipt.total) {
            LogText(log, "Incorrect sequence # detected! - " + hex);
            log->LogMessageCallBack("Expected sequence %d, but got %d instead.", static_cast<int>(receipt.received),
                                    static_cast<int>(number));
            end = AttemptEnd::SequenceError;
            attempting = false;
            break;
          }
          LogPercent(log, receipt, number == 0);
          ++receipt.received;
          if (!SaveDataPacket(block, output, audit)) attempting = false;
          break;
      }
    }
    if (end == AttemptEnd::Stopped) {
      audit.Finish(false);
      op.End();
      return;
    }
    std::printf("\n");
    log->LogMessageCallBack("Total file size = %d , Total packets = %d\n", static_cast<int>(receipt.archiveSize),
                            static_cast<int>(receipt.total));
    if (end == AttemptEnd::Complete) {
      if (!audit.Finish(true)) op.outcome.MarkIncomplete();
      break;
    }
    if (++restarts > limits::kMaxLogDownloadRestarts) {
      LogText(log, "Error: The log archive arrived out of sequence " + std::to_string(restarts) +
                       " times; log download stopped.");
      audit.Finish(false);
      op.End();
      return;
    }
    // The next attempt sends the archive from its beginning.
    output.Restart();
    audit.Restart();
  }
  ReportProgress(op.progress, kProgressDone);
  std::fflush(stdout);
  op.EndDone();
}

}  // namespace ferrolt
