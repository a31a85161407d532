// The upload: a start command naming the file, the file in numbered 57-byte
// packets sent stop-and-wait (a refused packet goes again at once), and an end
// command. A failed write closes, reopens and writes again, a bounded number
// of times.
#include "transfer/UploadFile.h"

#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "transfer/FilePackets.h"
#include "transfer/LocalPath.h"
#include "transfer/Reports.h"

namespace ferrolt {

namespace {

constexpr int kProgressStarted = 5;
constexpr int kProgressFileOpen = 10;
constexpr int kProgressStartWritten = 15;
// The start text must leave room for its terminating zero in the block.
constexpr size_t kMaxStartTextLength = kBlockSize - 1;
// Byte 6 of a type-4 reply that refuses the last data packet.
constexpr uint8_t kNackMark = 1;

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

bool IsNack(const Block& reply) {
  return reply[kTypeOffset] == static_cast<uint8_t>(PacketType::Cli) && reply[kPayloadOffset] == kNackMark;
}

enum class WriteOutcome { Written, LinkLost, GaveUp, Cancelled };

// Writes one block; after a failed write: reconnect, pause, write again, at
// most limits::kMaxReconnectRounds writes in all. The running flag is looked at
// before every round so a cancel does not wait out the rounds.
WriteOutcome WriteWithReconnect(const OperationContext& op, const Block& block, const char* failureLine) {
  for (int attempt = 1;; ++attempt) {
    if (op.link.WritePacket(block.data(), kBlockSize, op.log) == TransferStatus::Done) return WriteOutcome::Written;
    if (failureLine != nullptr) LogText(op.log, failureLine);
    if (!op.Running()) return WriteOutcome::Cancelled;
    if (attempt == limits::kMaxReconnectRounds) return WriteOutcome::GaveUp;
    if (!op.Reconnect()) return WriteOutcome::LinkLost;
    std::this_thread::sleep_for(limits::kReconnectPause);
  }
}

// Tells a device whose answers run late: one that had answered every packet
// until a packet's wait ran out, and whose answer then came in the next
// packet's wait. A refusal names no packet, so one that comes late is taken
// for the next packet and the refused one is never sent again.
class ReplyTiming {
 public:
  void Reply(bool came) {
    if (came && missedAfterAnswers_) late_ = true;
    missedAfterAnswers_ = !came && answeredEvery_ && answered_ > 0;
    answeredEvery_ = answeredEvery_ && came;
    if (came) ++answered_;
  }
  bool Late() const { return late_; }

 private:
  int answered_ = 0;
  bool answeredEvery_ = true;
  bool missedAfterAnswers_ = false;
  bool late_ = false;
};

void PrintProgressIfChanged(int32_t index, int32_t count, int& lastPercent) {
  const int percent = PercentOf(index, count);
  if (percent == lastPercent) return;
  std::printf("\rProgress: %d%%", percent);
  std::fflush(stdout);
  lastPercent = percent;
}

}  // namespace

void UploadFile(const OperationContext& op, const std::string& localPath) {
  ILogMessageCallBack* const log = op.log;
  ReportProgress(op.progress, kProgressStarted);
  if (!op.Running()) {
    op.link.CloseDevice();
    return;
  }
  const std::string name = FileNameOf(localPath);
  std::printf("File to send: %s\n", name.c_str());

  if (NamesAFolder(localPath)) {
    LogText(log, kFolderRefusal + localPath);
    op.End();
    return;
  }
  FileHandle file(std::fopen(localPath.c_str(), "rb"), &std::fclose);
  if (file == nullptr) {
    LogText(log, "Error: Can not find specified file - " + localPath);
    op.End();
    return;
  }
  std::printf("SPI SUPPORT IS TURNED ON!\n");
  ReportProgress(op.progress, kProgressFileOpen);

  const long measured = MeasureFile(file.get());
  if (measured < 0 || measured > kLargestFileSize) {
    LogText(log, "Error: Files of 2 GiB or more can not be uploaded - " + localPath);
    op.End();
    return;
  }
  const int32_t size = static_cast<int32_t>(measured);
  const int32_t count = PacketCountFor(size);
  char startText[kBlockSize * 4];
  const int startLength = std::snprintf(startText, sizeof startText, "Starting upload %d %d %s", static_cast<int>(size),
                                        static_cast<int>(count), name.c_str());
  if (startLength < 0 || static_cast<size_t>(startLength) > kMaxStartTextLength) {
    LogText(log, "Error: The file name is too long for the device - " + name);
    op.End();
    return;
  }

  op.link.FlushPipes();
  auto endAfter = [&](WriteOutcome outcome, int32_t index) {
    if (outcome == WriteOutcome::GaveUp) {
      LogText(log, "Error: The device did not take the upload after " + std::to_string(limits::kMaxReconnectRounds) +
                       " attempts; upload stopped.");
    } else if (outcome == WriteOutcome::Cancelled) {
      // "Ending upload" is not sent: the device would keep the part that
      // arrived as if it were the whole file.
      LogText(log, "Upload canceled after " + std::to_string(index) + " of " + std::to_string(count) +
                       " packets; the end command was not sent.");
    }
    op.End();
  };

  const Block startBlock = BuildRawTextBlock(startText);
  const WriteOutcome started =
      WriteWithReconnect(op, startBlock, "Failed in writing 'File Upload' to device.");
  if (started != WriteOutcome::Written) {
    endAfter(started, 0);
    return;
  }
  LogText(log, "Succeeded in writing 'File Upload' to device.");
  std::this_thread::sleep_for(limits::kReconnectPause);
  ReportProgress(op.progress, kProgressStartWritten);
  std::printf("FILE UPLOADING TO DEVICE...\n");

  int lastPercent = -1;
  ReplyTiming timing;
  for (int32_t index = 0; index < count; ++index) {
    uint8_t chunk[kPayloadSize];
    const size_t got = std::fread(chunk, 1, kPayloadSize, file.get());
    if (got == 0) {
      if (std::ferror(file.get()) == 0) break;
      LogText(log, "Error: Reading the local file failed at packet " + std::to_string(index) + "; upload stopped.");
      op.End();
      return;
    }
    Block packet{};
    BuildPacket(static_cast<uint8_t>(PacketType::Upload), static_cast<uint32_t>(index), chunk,
                static_cast<uint8_t>(got), packet.data());
    for (int refusals = 0;;) {
      const WriteOutcome sent = WriteWithReconnect(op, packet, nullptr);
      if (sent == WriteOutcome::Written && !op.Running()) {
        endAfter(WriteOutcome::Cancelled, index + 1);
        return;
      }
      if (sent != WriteOutcome::Written) {
        endAfter(sent, index);
        return;
      }
      PrintProgressIfChanged(index, count, lastPercent);
      Block reply{};
      uint32_t received = 0;
      const bool answered = op.link.ReadPacket(reply.data(), kBlockSize, log, &received) == TransferStatus::Done;
      timing.Reply(answered);
      if (!answered) break;
      LogText(log, "Write data:" + BytesToHex(packet.data(), kBlockSize));
      if (!IsNack(reply)) break;
      LogText(log, "A NACK has occurred!");
      LogText(log, "Read data :" + BytesToHex(reply.data(), static_cast<int>(received)));
      if (++refusals == limits::kMaxUploadRefusals) {
        LogText(log, "Error: The device refused packet " + std::to_string(index) + " " + std::to_string(refusals) +
                         " times; upload stopped.");
        op.End();
        return;
      }
    }
  }
  file.reset();

  const Block endBlock = BuildRawTextBlock("Ending upload");
  if (op.link.WritePacket(endBlock.data(), kBlockSize, log) == TransferStatus::Done) {
    LogText(log, "Succeeded in writing 'Ending upload' to device.");
    op.outcome.MarkDone();
  } else {
    LogText(log, "Failed in writing 'Ending upload' to device.");
  }
  PrintPacketSummary(size, count);
  if (timing.Late()) {
    std::fprintf(stderr,
                 "ferrolt: the device answered later than the %d ms wait, so a refusal may have been taken for the "
                 "next packet: the copy of %s on the device may be damaged.\n",
                 static_cast<int>(limits::kReadWait.count()), name.c_str());
    op.outcome.MarkIncomplete();
  }
  ReportProgress(op.progress, kProgressDone);
  std::printf("Finished File Upload!\n");
  std::fflush(stdout);
  op.End();
}

}  // namespace ferrolt
