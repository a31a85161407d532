// The log download: the device's log archive as numbered packets, with a
// sequence check whose failure asks for the whole archive again. The file is
// emptied before each new attempt, so the archive on disk is the one attempt
// that reached the end reply.
#include <string>

#include "transfer/DownloadLogs.h"

#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "link/Reporting.h"
#include "transfer/DownloadAudit.h"
#include "transfer/DownloadOpening.h"
#include "transfer/FilePackets.h"
#include "transfer/Progress.h"
#include "transfer/ReceiveDownload.h"
#include "transfer/ReconnectPolicy.h"

namespace ferrolt {

namespace {

constexpr const char* kRequestText = "Download Logs";

// One attempt at the archive: its data packets checked for sequence, its
// percentages logged.
class LogAttempt {
 public:
  LogAttempt(const OperationContext& op, const std::string& zipPath) : op_(op), zipPath_(zipPath) {}

  ReceiveEnd Receive(OutputFile& output, DownloadAudit& audit) {
    const DownloadReplies replies{
        .type = PacketType::Logs,
        .markers = kLogDownloadMarkers,
        .logEveryBlock = false,
        .started = [this](const Receipt&) { op_.console.PrintFormatted("%s\n", zipPath_.c_str()); },
        .data = [this](const Block& block, const Receipt& now) { return TakeData(block, now); },
    };
    return ReceiveDownload(op_, replies, output, audit, receipt_);
  }

  // The empty line and the totals that close every attempt that got an answer.
  void ReportTotals() const {
    op_.console.Print("\n");
    op_.log.LogMessageCallBack("Total file size = %d , Total packets = %d\n", static_cast<int>(receipt_.size),
                               static_cast<int>(receipt_.total));
  }

 private:
  // Only a number above the total that is not the one expected breaks the
  // sequence; repeats and gaps below it are written where they arrive.
  DataVerdict TakeData(const Block& block, const Receipt& receipt) {
    const int32_t number = static_cast<int32_t>(PacketNumber(block.data()));
    if (number != 0 && number != receipt.received && number > receipt.total) {
      LogText(op_.log, "Incorrect sequence # detected! - " + BytesToHex(block.data(), kBlockSize));
      op_.log.LogMessageCallBack("Expected sequence %d, but got %d instead.", static_cast<int>(receipt.received),
                                 static_cast<int>(number));
      return DataVerdict::Refuse;
    }
    LogPercent(receipt, number == 0);
    return DataVerdict::Take;
  }

  // The percentage before this packet is counted; while no total is known
  // there is nothing to divide by, so nothing is logged. The first data
  // packet logs it even when unchanged.
  void LogPercent(const Receipt& receipt, bool always) {
    if (receipt.total == 0) return;
    const int percent = PercentOf(receipt.received, receipt.total);
    if (percentSeen_.Changed(percent) || always)
      op_.log.LogMessageCallBack("Download Log Progress: %d%%%%", percent);
  }

  const OperationContext& op_;
  const std::string& zipPath_;
  Receipt receipt_;
  PercentSeen percentSeen_;
};

enum class ArchiveEnd { Complete, NotAsked, Failed };

// Attempts until one reaches the end reply; a sequence error starts the
// archive over, at most limits::kMaxLogDownloadRestarts times.
ArchiveEnd ReceiveArchive(const OperationContext& op, const std::string& zipPath, OutputFile& output,
                          DownloadAudit& audit) {
  const Block request = BuildTextPacket(PacketType::Logs, kRequestText);
  for (int restarts = 0;; ++restarts) {
    if (SendWithReconnect(op, request, {.subject = "the log download request"}) != SendResult::Written)
      return ArchiveEnd::NotAsked;
    LogText(op.log, "Starting download logs now.");
    LogAttempt attempt(op, zipPath);
    const ReceiveEnd end = attempt.Receive(output, audit);
    if (end == ReceiveEnd::Stopped) return ArchiveEnd::Failed;
    attempt.ReportTotals();
    if (end == ReceiveEnd::Complete) return ArchiveEnd::Complete;
    if (restarts == limits::kMaxLogDownloadRestarts) {
      LogText(op.log, "Error: The log archive arrived out of sequence " + std::to_string(restarts + 1) +
                          " times; log download stopped.");
      return ArchiveEnd::Failed;
    }
    output.Restart();
    audit.Restart();
  }
}

}  // namespace

void DownloadLogs(const OperationContext& op, const std::string& zipPath) {
  if (!op.Connect()) {
    op.End();
    return;
  }
  OutputFile output;
  if (!OpenDownload(op, output, zipPath, "log", std::string())) return;
  DownloadAudit audit(zipPath, op.console);
  const ArchiveEnd end = ReceiveArchive(op, zipPath, output, audit);
  if (end != ArchiveEnd::Complete) {
    // A request that never went out leaves the emptied file unmarked.
    if (end == ArchiveEnd::Failed) audit.Finish(false);
    op.End();
    return;
  }
  if (!audit.Finish(true)) op.outcome.MarkIncomplete();
  op.progress.ProgressChangeCallBack(kProgressDone);
  op.console.Flush();
  op.EndDone();
}

}  // namespace ferrolt
