#include "transfer/FilePackets.h"

#include <cstdio>

#include "link/DevicePacket.h"

namespace ferrolt {

namespace {

constexpr int64_t kFullPercent = 100;
constexpr int64_t kPieceSize = static_cast<int64_t>(kPayloadSize);

}  // namespace

int32_t PacketCountFor(int32_t size) {
  return static_cast<int32_t>((static_cast<int64_t>(size) + kPieceSize - 1) / kPieceSize);
}

int PercentOf(int32_t done, int32_t total) { return static_cast<int>(static_cast<int64_t>(done) * kFullPercent / total); }

void PrintPacketSummary(int32_t size, int32_t packetCount) {
  std::printf("\n-------------------------------------------\n");
  std::printf("File Size = %d\n", static_cast<int>(size));
  std::printf("Packet Count = %d\n", static_cast<int>(packetCount));
}

}  // namespace ferrolt
