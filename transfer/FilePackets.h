// A file as it crosses the link: numbered 57-byte packets, with its size and
// packet count told as signed 32-bit numbers.
#pragma once

#include <cstdint>
#include <limits>

#include "link/ConsoleSink.h"
#include "link/DevicePacket.h"

namespace ferrolt {

// The file bytes one packet carries.
inline constexpr int64_t kPieceSize = static_cast<int64_t>(kPayloadSize);

// The largest file whose size the device can be told: a file of 2 GiB or
// more is refused before anything is sent.
inline constexpr int64_t kLargestFileSize = std::numeric_limits<int32_t>::max();

// The packets a file of size bytes takes, the last one partly filled.
int32_t PacketCountFor(int32_t size);

// Truncated percentage of done out of total; total must not be 0.
int PercentOf(int32_t done, int32_t total);

// The console lines that close a file sent to the device.
void PrintPacketSummary(ConsoleSink& console, int32_t size, int32_t packetCount);

}  // namespace ferrolt
