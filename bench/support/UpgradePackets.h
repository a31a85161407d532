// A bundle's upgrade data packets, built before a pump starts: the pump then
// moves blocks and nothing else, and the device does the same work for them
// as for the tool's upgrade.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <vector>

#include "link/DevicePacket.h"

namespace ferrolt::bench {

inline std::vector<Block> UpgradePackets(const std::filesystem::path& bundle) {
  std::ifstream file(bundle, std::ios::binary);
  std::vector<Block> packets;
  uint8_t piece[kPayloadSize];
  for (uint32_t number = 0; file.read(reinterpret_cast<char*>(piece), kPayloadSize) || file.gcount() > 0; ++number) {
    packets.emplace_back();
    BuildPacket(static_cast<uint8_t>(PacketType::Upgrade), number, piece, static_cast<uint8_t>(file.gcount()),
                packets.back().data());
  }
  return packets;
}

}  // namespace ferrolt::bench
