// Multi-byte values appended to a byte string low byte first: the order of
// USB descriptors, and the order every capture of ours is written in (its
// section header says so to the reader).
#pragma once

#include <cstdint>
#include <vector>

namespace ferrolt::capture {

inline void AppendU16(std::vector<uint8_t>& bytes, uint16_t value) {
  bytes.push_back(static_cast<uint8_t>(value & 0xFF));
  bytes.push_back(static_cast<uint8_t>(value >> 8));
}

inline void AppendU32(std::vector<uint8_t>& bytes, uint32_t value) {
  AppendU16(bytes, static_cast<uint16_t>(value & 0xFFFF));
  AppendU16(bytes, static_cast<uint16_t>(value >> 16));
}

inline void AppendU64(std::vector<uint8_t>& bytes, uint64_t value) {
  AppendU32(bytes, static_cast<uint32_t>(value & 0xFFFFFFFF));
  AppendU32(bytes, static_cast<uint32_t>(value >> 32));
}

}  // namespace ferrolt::capture
