#include "link/ResponseReader.h"

#include <cstdio>
#include <string>
#include <thread>

#include "link/DevicePacket.h"
#include "link/Limits.h"

namespace ferrolt {

namespace {

constexpr const char* kNackLabel = "NACKED PACKET      = ";
constexpr size_t kNackByteTextSize = sizeof("ff ");
constexpr size_t kSequenceErrorFlag = kPayloadOffset;
constexpr const char* kEndMarker = "ending";
constexpr const char* kFailureMarker = "Failed";

bool StopRequested(const ReaderState& state, const std::atomic<bool>& stop) {
  return state.ReaderDone.load() || stop.load();
}

// One console write for the whole NACK report, so it is not interleaved
// with the sender's lines.
void PrintNack(const uint8_t* block, ConsoleSink& console) {
  std::string line = kNackLabel;
  for (size_t i = 0; i < kBlockSize; ++i) {
    char byteText[kNackByteTextSize];
    std::snprintf(byteText, sizeof(byteText), "%02hhx ", block[i]);
    line += byteText;
  }
  line += "\n";
  line += block[kSequenceErrorFlag] != 0 ? "Sequence error\n" : "CRC error\n";
  console.Print(line);
}

// A status text during an upgrade; true when it reports the end.
bool HandleStatusText(const uint8_t* block, ReaderState& state, ConsoleSink& console, ILogMessageCallBack& log) {
  if (!VerifyPacketCrc(block, console)) return false;
  const std::string text = PayloadText(block);
  log.LogMessageCallBack("%s", text.c_str());
  const bool failed = text.find(kFailureMarker) != std::string::npos;
  if (failed) state.ReportedFailure.store(true);
  return failed || text.find(kEndMarker) != std::string::npos;
}

// True when the block ends the reader.
bool HandleBlock(const uint8_t* block, ReaderState& state, ConsoleSink& console, ILogMessageCallBack& log) {
  switch (static_cast<PacketType>(PacketTypeOf(block))) {
    case PacketType::Nack:
      // The sender acts on the number; a NACK's own CRC is not checked.
      state.NackedPacketNumber.exchange(PacketNumber(block));
      PrintNack(block, console);
      return false;
    case PacketType::Upgrade:
      return HandleStatusText(block, state, console, log);
    default:
      return false;
  }
}

}  // namespace

void ReadResponses(UsbLink& link, ReaderState& state, const std::atomic<bool>& stop, ILogMessageCallBack& log) {
  Block block{};
  while (!StopRequested(state, stop)) {
    uint32_t bytesReceived = 0;
    const TransferStatus status = link.ReadPacket(block.data(), kBlockSize, nullptr, &bytesReceived);
    if (status == TransferStatus::Done) {
      if (HandleBlock(block.data(), state, link.Console(), log)) {
        state.ReaderDone.exchange(true);
        return;
      }
      continue;
    }
    // A signalled cancel or a failed read returns without waiting; pause as
    // long as a read would have waited, so the reader never spins.
    if ((status == TransferStatus::Cancelled || status == TransferStatus::Failed) && !StopRequested(state, stop))
      std::this_thread::sleep_for(limits::kReadWait);
  }
}

}  // namespace ferrolt
