#include "transfer/FilePackets.h"

namespace ferrolt {

namespace {

constexpr int64_t kFullPercent = 100;

}  // namespace

int32_t PacketCountFor(int32_t size) {
  return static_cast<int32_t>((static_cast<int64_t>(size) + kPieceSize - 1) / kPieceSize);
}

int PercentOf(int32_t done, int32_t total) { return static_cast<int>(static_cast<int64_t>(done) * kFullPercent / total); }

void PrintPacketSummary(ConsoleSink& console, int32_t size, int32_t packetCount) {
  console.Print("\n-------------------------------------------\n");
  console.PrintFormatted("File Size = %d\n", static_cast<int>(size));
  console.PrintFormatted("Packet Count = %d\n", static_cast<int>(packetCount));
}

}  // namespace ferrolt
