// The upgrade worker: streams a bundle file to the device as numbered data
// packets without waiting between them, goes back to a packet the device
// refuses (go-back-N on the NACKs the response reader stores), then sends the
// end packet and waits for the device's end report.
#include "transfer/UpgradeBundle.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "link/Reporting.h"
#include "link/WriteWindow.h"
#include "transfer/FilePackets.h"
#include "transfer/LocalPath.h"
#include "transfer/Progress.h"

namespace ferrolt {
namespace {

// Bytes of the bundle read from the file at once (about 64 KiB), whole
// pieces only: the packets take their 57-byte pieces from memory, and only
// the file's end makes a short one.
constexpr size_t kBundleReadSize = static_cast<size_t>(kPieceSize) * 1150;

// The bundle file, read from its position in large pieces; nothing of it is
// kept in memory beyond the piece being sent.
class BundleFile {
 public:
  enum class Piece { Read, End, Failed };

  BundleFile() : buffer_(kBundleReadSize) {}

  bool Open(const std::string& path) {
    if (NamesAFolder(path)) return false;
    stream_.open(path, std::ios::in | std::ios::binary);
    return stream_.is_open();
  }

  // Steps to the end and reports the position reached there; a failed seek
  // leaves the position where it was.
  int64_t SeekToEnd(ILogMessageCallBack& log) {
    LogText(log, "Getting File Size...Seeking to end of file.");
    SeekAndReport(0, std::ios::end, log);
    return Position();
  }

  void SeekToStart(ILogMessageCallBack& log) {
    LogText(log, "Seeking to beginning of file.");
    SeekAndReport(0, std::ios::beg, log);
  }

  void SeekToPacket(int32_t index) {
    Discard();
    stream_.clear();
    stream_.seekg(static_cast<int64_t>(index) * kPieceSize, std::ios::beg);
  }

  // Up to 57 bytes into piece; count gets how many came.
  Piece ReadPiece(uint8_t* piece, uint8_t& count) {
    if (taken_ == held_ && !Refill()) return Piece::Failed;
    count = static_cast<uint8_t>(std::min<size_t>(static_cast<size_t>(kPieceSize), held_ - taken_));
    std::memcpy(piece, buffer_.data() + taken_, count);
    taken_ += count;
    return count == 0 ? Piece::End : Piece::Read;
  }

  void Close() { stream_.close(); }

 private:
  // False when the file could not be read; at its end nothing is held.
  bool Refill() {
    Discard();
    stream_.read(reinterpret_cast<char*>(buffer_.data()), static_cast<std::streamsize>(buffer_.size()));
    held_ = static_cast<size_t>(stream_.gcount());
    return !stream_.bad();
  }

  void Discard() { taken_ = held_ = 0; }

  void SeekAndReport(int64_t offset, std::ios::seekdir from, ILogMessageCallBack& log) {
    Discard();
    stream_.clear();
    stream_.seekg(offset, from);
    if (stream_.fail()) {
      stream_.clear();
      return;
    }
    LogText(log, "Success.");
  }

  int64_t Position() {
    const std::streamoff position = stream_.tellg();
    stream_.clear();
    return position < 0 ? 0 : static_cast<int64_t>(position);
  }

  std::ifstream stream_;
  std::vector<uint8_t> buffer_;
  size_t held_ = 0;   // bytes of the piece read from the file
  size_t taken_ = 0;  // of them, sent already
};

// How the data phase ended.
enum class StreamEnd {
  Sent,         // all packets written, or the file ended early
  Stopped,      // OperationRunning found clear
  WriteFailed,  // one packet could not be written within the retry bound
  ReadFailed,   // the bundle file could not be read
};

// The data phase: packets in order, up to a window of them in flight, going
// back to a packet the device refused or whose write failed. Writes past that
// packet drain first; the device drops what comes out of order.
class PacketStream {
 public:
  explicit PacketStream(const OperationContext& op) : op_(op), window_(op.link, limits::kUpgradeWriteWindow) {}

  StreamEnd Send(BundleFile& file, int32_t packetCount) {
    packetCount_ = packetCount;
    const StreamEnd end = Stream(file);
    // At a stop or a failure, what is still in flight ends within its wait.
    window_.Drain();
    return end;
  }

  int32_t Index() const { return next_; }

 private:
  static constexpr int32_t kNoPacket = -1;

  StreamEnd Stream(BundleFile& file) {
    int32_t end = packetCount_;
    for (;;) {
      if (!op_.Running()) return StreamEnd::Stopped;
      if (window_.Full() || (next_ >= end && !window_.Empty())) {
        if (!Settle(window_.AwaitOldest(&op_.log), file)) return StreamEnd::WriteFailed;
        continue;
      }
      std::lock_guard<std::mutex> step(op_.linkMutex);
      const bool resend = TakeNack(file);
      if (next_ >= end) {
        if (window_.Empty() && !LateNackRewinds(file)) return StreamEnd::Sent;
        continue;
      }
      uint8_t piece[kPayloadSize];
      uint8_t count = 0;
      const BundleFile::Piece read = file.ReadPiece(piece, count);
      if (read == BundleFile::Piece::Failed) return StreamEnd::ReadFailed;
      if (read == BundleFile::Piece::End) {
        // The file ended early: what is in flight still ends.
        end = next_;
        continue;
      }
      Block packet{};
      BuildPacket(static_cast<uint8_t>(PacketType::Upgrade), static_cast<uint32_t>(next_), piece, count, packet.data());
      if (resend) LogText(op_.log, "Write data :" + BytesToHex(packet.data(), static_cast<int>(kBlockSize)));
      window_.Start(packet.data(), kBlockSize, next_);
      ++next_;
    }
  }

  // One write's end. A failed one counts as a refusal of its packet, up to
  // the retry bound; false once that is reached.
  bool Settle(const WriteWindow::Ended& ended, BundleFile& file) {
    if (ended.status == TransferStatus::Done) {
      if (ended.tag == failingPacket_) failures_ = 0;
      LogPercent(ended.tag);
      return true;
    }
    op_.console.Print("A write retry was detected!\n");
    if (ended.tag != failingPacket_) {
      failingPacket_ = ended.tag;
      failures_ = 0;
    }
    if (++failures_ >= limits::kMaxWriteRetries) {
      next_ = ended.tag;
      return false;
    }
    RewindTo(ended.tag, file);
    return true;
  }

  // A NACK for a packet already sent moves the stream back to it. Numbers at
  // or above the next packet stay stored for a later step. A NACK for the
  // packet just gone back to, while the write of its resend has not
  // completed, was sent before the device had the resend: it refuses nothing
  // new. Once that write has completed (the device has the block; its NACK
  // comes after the completion), a NACK for it is a refusal again.
  bool TakeNack(BundleFile& file) {
    uint32_t stored = op_.reader.NackedPacketNumber.load();
    const int32_t nacked = static_cast<int32_t>(stored);
    // kNoNack reads as -1 here.
    if (nacked < 0 || nacked >= next_) return false;
    const bool stale = nacked == rewoundTo_ && window_.Pending(nacked);
    if (!stale) {
      // The progress of the packets already written comes before the
      // resend line, as it would with one write at a time.
      DrainWindow();
      op_.console.PrintFormatted("Resending NACK packet, packet No : %d\n", nacked);
      RewindTo(nacked, file);
    }
    // Only clear the number we acted on: a NACK stored since then must survive.
    op_.reader.NackedPacketNumber.compare_exchange_strong(stored, kNoNack);
    return !stale;
  }

  // A completed write is not a packet the device has looked at: with many
  // in flight, its refusal of an early one can come after the last write
  // has completed. It is given limits::kLateNackGrace to come before the
  // end packet; true when one came and the stream went back.
  bool LateNackRewinds(BundleFile& file) {
    const auto deadline = std::chrono::steady_clock::now() + limits::kLateNackGrace;
    while (op_.Running() && std::chrono::steady_clock::now() < deadline) {
      if (TakeNack(file)) return true;
      std::this_thread::sleep_for(limits::kUpgradeEndReportPoll);
    }
    return false;
  }

  // The writes in flight end first, quietly but for the progress of those
  // written: the device has them, or drops them as out of order.
  void RewindTo(int32_t packet, BundleFile& file) {
    DrainWindow();
    file.SeekToPacket(packet);
    next_ = packet;
    rewoundTo_ = packet;
  }

  void DrainWindow() {
    while (!window_.Empty()) {
      const WriteWindow::Ended ended = window_.AwaitOldest(nullptr);
      if (ended.status == TransferStatus::Done) LogPercent(ended.tag);
    }
  }

  void LogPercent(int32_t written) {
    const int percent = PercentOf(written, packetCount_);
    if (!percentSeen_.Changed(percent)) return;
    op_.log.LogMessageCallBack("Progress: %d%%%%", percent);
    op_.console.Flush();
  }

  const OperationContext& op_;
  WriteWindow window_;
  int32_t packetCount_ = 0;
  int32_t next_ = 0;  // the next packet to start
  PercentSeen percentSeen_;
  int32_t rewoundTo_ = kNoPacket;  // the packet gone back to last
  // The packet whose writes failed last, and how often in a row.
  int32_t failingPacket_ = kNoPacket;
  int failures_ = 0;
};

// The wait for the reader's end report. Ends early on a cancel or after
// limits::kUpgradeEndReportWait; true when the reader is done.
bool WaitForEndReport(const ReaderState& reader, const std::atomic<bool>& running) {
  const auto deadline = std::chrono::steady_clock::now() + limits::kUpgradeEndReportWait;
  while (!reader.ReaderDone.load()) {
    if (!running.load() || std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(limits::kUpgradeEndReportPoll);
  }
  return true;
}

void ReportStreamFailure(StreamEnd streamEnd, int32_t index, ILogMessageCallBack& log) {
  if (streamEnd == StreamEnd::WriteFailed) {
    log.LogMessageCallBack("Error: Packet %d could not be written after %d attempts. Upgrading is stopped.", index,
                           limits::kMaxWriteRetries);
  } else {
    log.LogMessageCallBack("Error: Reading the bundle file failed at packet %d. Upgrading is stopped.", index);
  }
}

int SecondsOf(std::chrono::milliseconds wait) {
  return static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(wait).count());
}

// Opens and measures the bundle; its size, or nothing after the log line of
// a file that cannot be opened or told to the device.
std::optional<int32_t> OpenBundle(const OperationContext& op, BundleFile& file, const std::string& bundlePath) {
  if (!file.Open(bundlePath)) {
    ReportUnopenableFile(op, bundlePath);
    return std::nullopt;
  }
  LogText(op.log, "I found specified file - " + bundlePath);
  op.console.Print("SPI SUPPORT IS TURNED ON!\n");
  op.progress.ProgressChangeCallBack(kProgressFileOpen);
  const int64_t fileSize = file.SeekToEnd(op.log);
  file.SeekToStart(op.log);
  if (fileSize > kLargestFileSize) {
    LogText(op.log, "Error: The bundle file is 2 GiB or larger, more than the device can take - " + bundlePath);
    return std::nullopt;
  }
  return static_cast<int32_t>(fileSize);
}

// Written once: the device starts over at a second one.
bool SendStartCommand(const OperationContext& op, int32_t size, int32_t packetCount) {
  const Block start = BuildRawTextBlock("Starting Upgrade " + std::to_string(size) + " " + std::to_string(packetCount));
  if (op.link.WritePacket(start.data(), kBlockSize, &op.log) != TransferStatus::Done) {
    LogText(op.log, "Failed in writing 'Starting Upgrade' to device.");
    return false;
  }
  LogText(op.log, "Successful in writing 'Starting Upgrade' to device.");
  LogText(op.log, "Downloading Upgrade Bundle now.");
  return true;
}

void SendEndPacket(const OperationContext& op) {
  const Block end = BuildTextPacket(PacketType::Upgrade, "Ending Upgrade");
  const TransferStatus endStatus = op.link.WritePacket(end.data(), kBlockSize, &op.log);
  if (endStatus != TransferStatus::Done)
    op.console.PrintFormatted("The error code is: %d\n", static_cast<int>(endStatus));
  else
    LogText(op.log, "Download of upgrade bundle to device has completed.");
}

// After the data phase: the end packet, the summary, and the device's end
// report; a cancel on the way leaves the link open for the cancel's packet.
void FinishUpgrade(const OperationContext& op, BundleFile& file, int32_t size, int32_t packetCount) {
  LogText(op.log, "Progress: 100%");
  file.Close();
  SendEndPacket(op);
  PrintPacketSummary(op.console, size, packetCount);
  if (!WaitForEndReport(op.reader, op.running) && op.Running()) {
    op.log.LogMessageCallBack("Error: The device sent no end report within %d seconds.",
                              SecondsOf(limits::kUpgradeEndReportWait));
    op.End();
    return;
  }
  if (op.reader.ReaderDone.load()) op.console.Print("I am done with the reader thread.\n");
  if (!op.Running()) {
    op.console.Print("Upgrading is aborted.\n");
    return;
  }
  // The console says the same as after a good end; the note and the
  // outcome tell a script that the device did not take the bundle.
  if (op.reader.ReportedFailure.load())
    op.console.Note("the device reported that the upgrade failed; it did not take the bundle.");
  else
    op.outcome.MarkDone();
  op.link.CloseDevice();
  LogText(op.log, "Please wait until reboot of device is done.");
  op.running.store(false);
}

}  // namespace

void UpgradeBundle(const OperationContext& op, const std::string& bundlePath) {
  BundleFile file;
  const std::optional<int32_t> size = OpenBundle(op, file, bundlePath);
  if (!size) {
    op.End();
    return;
  }
  const int32_t packetCount = PacketCountFor(*size);
  if (!SendStartCommand(op, *size, packetCount)) {
    op.End();
    return;
  }
  PacketStream stream(op);
  const StreamEnd streamEnd = stream.Send(file, packetCount);
  if (streamEnd == StreamEnd::WriteFailed || streamEnd == StreamEnd::ReadFailed) {
    ReportStreamFailure(streamEnd, stream.Index(), op.log);
    op.End();
    return;
  }
  if (!op.Running()) {
    op.console.Print("Upgrading is aborted.\n");
    return;
  }
  FinishUpgrade(op, file, *size, packetCount);
}

}  // namespace ferrolt
