// Multi-byte values low byte first: the order of USB descriptors, and the
// order every capture of ours is written in (its section header says so to
// the reader). Stored in place, or appended to a byte string.
#pragma once

#include <cstdint>
#include <vector>

namespace ferrolt::capture {

inline void StoreU16(uint8_t* at, uint16_t value) {
  at[0] = static_cast<uint8_t>(value & 0xFF);
  at[1] = static_cast<uint8_t>(value >> 8);
}

inline void StoreU32(uint8_t* at, uint32_t value) {
  StoreU16(at, static_cast<uint16_t>(value & 0xFFFF));
  StoreU16(at + 2, static_cast<uint16_t>(value >> 16));
}

inline void StoreU64(uint8_t* at, uint64_t value) {
  StoreU32(at, static_cast<uint32_t>(value & 0xFFFFFFFF));
  StoreU32(at + 4, static_cast<uint32_t>(value >> 32));
}

inline void AppendU16(std::vector<uint8_t>& bytes, uint16_t value) {
  bytes.resize(bytes.size() + sizeof value);
  StoreU16(bytes.data() + bytes.size() - sizeof value, value);
}

inline void AppendU32(std::vector<uint8_t>& bytes, uint32_t value) {
  bytes.resize(bytes.size() + sizeof value);
  StoreU32(bytes.data() + bytes.size() - sizeof value, value);
}

inline void AppendU64(std::vector<uint8_t>& bytes, uint64_t value) {
  bytes.resize(bytes.size() + sizeof value);
  StoreU64(bytes.data() + bytes.size() - sizeof value, value);
}

}  // namespace ferrolt::capture
