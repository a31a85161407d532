// The upload: a start command naming the file, the file in numbered 57-byte
// packets sent stop-and-wait (a refused packet goes again at once), and an end
// command. A failed write closes, reopens and writes again, a bounded number
// of times.
#include "transfer/UploadFile.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "link/Reporting.h"
#include "transfer/FilePackets.h"
#include "transfer/LocalPath.h"
#include "transfer/Progress.h"
#include "transfer/ReadBack.h"
#include "transfer/ReconnectPolicy.h"

namespace ferrolt {

namespace {

constexpr int kProgressStartWritten = 15;
// The start text must leave room for its terminating zero in the block.
constexpr size_t kMaxStartTextLength = kBlockSize - 1;
// Byte 6 of a type-4 reply that refuses the last data packet.
constexpr uint8_t kNackMark = 1;

// Every failed write of the upload: close, pause, reopen, and a second pause
// before the block goes again.
constexpr ReconnectPolicy kStartPolicy{.subject = "the upload's start command",
                                       .failureLine = "Failed in writing 'File Upload' to device.",
                                       .pauseAfterReopen = true};
constexpr ReconnectPolicy kDataPolicy{.subject = "the upload's data packet", .pauseAfterReopen = true};

using FileHandle = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// The name the device stores the file under: what follows the last backslash.
std::string FileNameOf(const std::string& localPath) {
  const size_t slash = localPath.rfind('\\');
  return slash == std::string::npos ? localPath : localPath.substr(slash + 1);
}

// The file's size from its end position, the read position back at the start;
// -1 when it cannot be measured.
long MeasureFile(std::FILE* file) {
  if (std::fseek(file, 0, SEEK_END) != 0) return -1;
  const long size = std::ftell(file);
  std::rewind(file);
  return size;
}

FileHandle OpenLocalFile(const std::string& localPath) {
  if (NamesAFolder(localPath)) return FileHandle(nullptr, &std::fclose);
  return FileHandle(std::fopen(localPath.c_str(), "rb"), &std::fclose);
}

bool IsNack(const Block& reply) {
  return reply[kTypeOffset] == static_cast<uint8_t>(PacketType::Cli) && reply[kPayloadOffset] == kNackMark;
}

// Why the device's copy may differ although every packet was taken. A
// refusal names no packet, so a reply is the last written packet's only
// while nothing can have come late: once a packet's wait has run out, a
// later reply may be that packet's, and a block written again after a
// reopen may have reached the device before the write failed, its reply
// still on the way.
class CopyDoubts {
 public:
  // A packet's reply wait ended; came tells whether a reply came in it.
  void ReplyWait(bool came) {
    if (came && waitRanOut_) late_ = true;
    if (!came) waitRanOut_ = true;
  }
  // Replies found waiting before a block went out: they came after their
  // packet's wait.
  void StaleReplies(int count) {
    if (count > 0) late_ = true;
  }
  void ResentAfterReopen() { reopened_ = true; }

  bool WaitRanOut() const { return waitRanOut_; }
  // Empty when the copy is as sure as the exchange can make it.
  std::string Reasons() const {
    std::string reasons;
    if (late_) reasons = "the device answered after the " + std::to_string(limits::kReadWait.count()) +
                         " ms wait, so a refusal may have been taken for another packet";
    if (reopened_) {
      if (!reasons.empty()) reasons += "; ";
      reasons += "a packet went out again after the link was reopened, and an answer to it may have been taken "
                 "for the next";
    }
    return reasons;
  }

 private:
  bool waitRanOut_ = false;
  bool late_ = false;
  bool reopened_ = false;
};

// What the start command tells the device.
struct UploadPlan {
  std::string localPath;
  std::string name;
  int32_t size = 0;
  int32_t count = 0;
  std::string startText;
};

// The plan for a measured file, or nothing, after its log line, when the
// file or its name cannot be told to the device.
std::optional<UploadPlan> PlanUpload(const OperationContext& op, std::FILE* file, const std::string& localPath,
                                     std::string name) {
  const long measured = MeasureFile(file);
  if (measured < 0 || measured > kLargestFileSize) {
    LogText(op.log, "Error: Files of 2 GiB or more can not be uploaded - " + localPath);
    return std::nullopt;
  }
  UploadPlan plan{localPath, std::move(name), static_cast<int32_t>(measured),
                  PacketCountFor(static_cast<int32_t>(measured)), {}};
  plan.startText = "Starting upload " + std::to_string(plan.size) + " " + std::to_string(plan.count) + " " + plan.name;
  if (plan.startText.size() > kMaxStartTextLength) {
    LogText(op.log, "Error: The file name is too long for the device - " + plan.name);
    return std::nullopt;
  }
  return plan;
}

class Uploader {
 public:
  Uploader(const OperationContext& op, std::FILE* file, const UploadPlan& plan) : op_(op), file_(file), plan_(plan) {}

  // Start command, data packets, end command; the operation has ended when
  // it returns.
  void Run() {
    if (!SendStart() || !SendData()) return;
    SendEnd();
  }

 private:
  bool SendStart() {
    const SendResult sent = SendWithReconnect(op_, BuildRawTextBlock(plan_.startText), kStartPolicy);
    if (sent != SendResult::Written) return EndAfter(0);
    LogText(op_.log, "Succeeded in writing 'File Upload' to device.");
    op_.PauseUnlessStopped(limits::kReconnectPause);
    op_.progress.ProgressChangeCallBack(kProgressStartWritten);
    op_.console.Print("FILE UPLOADING TO DEVICE...\n");
    return true;
  }

  bool SendData() {
    for (int32_t index = 0; index < plan_.count; ++index) {
      uint8_t chunk[kPayloadSize];
      const size_t got = std::fread(chunk, 1, kPayloadSize, file_);
      if (got == 0) {
        if (std::ferror(file_) == 0) break;
        LogText(op_.log, "Error: Reading the local file failed at packet " + std::to_string(index) + "; upload stopped.");
        op_.End();
        return false;
      }
      Block packet{};
      BuildPacket(static_cast<uint8_t>(PacketType::Upload), static_cast<uint32_t>(index), chunk,
                  static_cast<uint8_t>(got), packet.data());
      if (!SendPacket(packet, index)) return false;
    }
    return true;
  }

  // One data packet until the device takes it: no reply within the wait, or
  // a reply that is no refusal.
  bool SendPacket(const Block& packet, int32_t index) {
    for (int refusals = 0;;) {
      doubts_.StaleReplies(op_.link.DropArrivedBlocks());
      bool reopened = false;
      const SendResult sent = SendWithReconnect(op_, packet, kDataPolicy, &reopened);
      if (sent != SendResult::Written) return EndAfter(index);
      if (reopened) doubts_.ResentAfterReopen();
      if (!op_.Running()) return EndAfter(index + 1);
      PrintProgress(index);
      if (!Refused(packet)) return true;
      if (++refusals == limits::kMaxUploadRefusals) {
        LogText(op_.log, "Error: The device refused packet " + std::to_string(index) + " " +
                             std::to_string(refusals) + " times; upload stopped.");
        op_.End();
        return false;
      }
    }
  }

  // The reply to the packet just written, if one comes within the wait.
  bool Refused(const Block& packet) {
    Block reply{};
    uint32_t received = 0;
    const bool answered = op_.link.ReadPacket(reply.data(), kBlockSize, &op_.log, &received) == TransferStatus::Done;
    doubts_.ReplyWait(answered);
    if (!answered) return false;
    LogText(op_.log, "Write data:" + BytesToHex(packet.data(), kBlockSize));
    if (!IsNack(reply)) return false;
    LogText(op_.log, "A NACK has occurred!");
    LogText(op_.log, "Read data :" + BytesToHex(reply.data(), static_cast<int>(received)));
    return true;
  }

  void PrintProgress(int32_t index) {
    const int percent = PercentOf(index, plan_.count);
    if (!percentSeen_.Changed(percent)) return;
    op_.console.PrintFormatted("\rProgress: %d%%", percent);
    op_.console.Flush();
  }

  // The end command, the summary and the last lines.
  void SendEnd() {
    LookForLateReplies();
    const Block endBlock = BuildRawTextBlock("Ending upload");
    const bool ended = op_.link.WritePacket(endBlock.data(), kBlockSize, &op_.log) == TransferStatus::Done;
    if (ended) {
      LogText(op_.log, "Succeeded in writing 'Ending upload' to device.");
      op_.outcome.MarkDone();
    } else {
      LogText(op_.log, "Failed in writing 'Ending upload' to device.");
    }
    PrintPacketSummary(op_.console, plan_.size, plan_.count);
    WarnOfDoubts();
    op_.progress.ProgressChangeCallBack(kProgressDone);
    op_.console.Print("Finished File Upload!\n");
    op_.console.Flush();
    if (ended && op_.readBackUpload) ReadBackUpload(op_, plan_.localPath, plan_.name);
    op_.End();
  }

  // A reply to the last packet may still be on its way once a wait has run
  // out: given the time a late device takes, it shows before the end
  // command goes out.
  void LookForLateReplies() {
    if (doubts_.WaitRanOut()) op_.PauseUnlessStopped(limits::kLateReplyGrace);
    doubts_.StaleReplies(op_.link.DropArrivedBlocks());
  }

  void WarnOfDoubts() {
    const std::string reasons = doubts_.Reasons();
    if (reasons.empty()) return;
    op_.console.Note("the copy of " + plan_.name + " on the device may be damaged: " + reasons + ".");
    op_.outcome.MarkIncomplete();
  }

  // The way out of a send that did not go through; always false. After a
  // cancel, "Ending upload" is not sent: the device would keep the part
  // that arrived as if it were the whole file.
  bool EndAfter(int32_t packetsSent) {
    if (!op_.Running()) {
      LogText(op_.log, "Upload canceled after " + std::to_string(packetsSent) + " of " + std::to_string(plan_.count) +
                           " packets; the end command was not sent.");
    }
    op_.End();
    return false;
  }

  const OperationContext& op_;
  std::FILE* file_;
  const UploadPlan& plan_;
  CopyDoubts doubts_;
  PercentSeen percentSeen_;
};

}  // namespace

void UploadFile(const OperationContext& op, const std::string& localPath) {
  op.progress.ProgressChangeCallBack(kProgressStarted);
  if (!op.Running()) {
    op.link.CloseDevice();
    return;
  }
  std::string name = FileNameOf(localPath);
  op.console.PrintFormatted("File to send: %s\n", name.c_str());
  const FileHandle file = OpenLocalFile(localPath);
  if (file == nullptr) {
    ReportUnopenableFile(op, localPath);
    op.End();
    return;
  }
  op.console.Print("SPI SUPPORT IS TURNED ON!\n");
  op.progress.ProgressChangeCallBack(kProgressFileOpen);
  const std::optional<UploadPlan> plan = PlanUpload(op, file.get(), localPath, std::move(name));
  if (!plan) {
    op.End();
    return;
  }
  op.link.FlushPipes();
  Uploader(op, file.get(), *plan).Run();
}

}  // namespace ferrolt
