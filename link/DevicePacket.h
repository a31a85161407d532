// The 64-byte blocks exchanged with the device: the CRC-8-closed
// DevicePacket, the plain RawTextBlock, and the helpers that build, check and
// show them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "link/ConsoleSink.h"

namespace ferrolt {

inline constexpr size_t kBlockSize = 64;
inline constexpr size_t kPayloadSize = 57;
// A received text payload is read into this many bytes: 57 plus a zero.
inline constexpr size_t kTextBufferSize = kPayloadSize + 1;

using Block = std::array<uint8_t, kBlockSize>;

enum class PacketType : uint8_t {
  Upgrade = 1,
  Version = 2,
  Logs = 3,
  Cli = 4,
  Upload = 5,
  Download = 6,
  Cancel = 7,
  Ort = 8,
  Nack = 10,
};

// Field offsets of a DevicePacket: type, number (u32 little-endian), length,
// 57 payload bytes, CRC-8 of bytes 0-62.
inline constexpr size_t kTypeOffset = 0;
inline constexpr size_t kNumberOffset = 1;
inline constexpr size_t kLengthOffset = 5;
inline constexpr size_t kPayloadOffset = 6;
inline constexpr size_t kCrcOffset = 63;

// The CRC-8 of the first count bytes (polynomial 0x07, initial 0x00, not
// reflected, result complemented); 0x00 for a count of 0.
uint8_t ComputeCrc8(const uint8_t* data, int count);

// Fills a DevicePacket in packet (64 bytes): type, number, length, length
// bytes of source, CRC over bytes 0-62. Returns 64, or 0 (and writes
// nothing) for a null packet, a length of 0 or a length above 57. Payload
// bytes past length are left as they were.
int BuildPacket(uint8_t type, uint32_t number, const uint8_t* source, uint8_t length, uint8_t* packet);

// Upper-case hex, two digits a byte, no separators.
std::string BytesToHex(const uint8_t* data, int count);

// The fields of a received block.
uint8_t PacketTypeOf(const uint8_t* block);
uint32_t PacketNumber(const uint8_t* block);
uint8_t PacketLength(const uint8_t* block);

// True when byte 63 matches the CRC-8 of bytes 0-62.
bool PacketCrcMatches(const uint8_t* block);

// Checks a received packet's CRC; on a mismatch prints the three console
// lines ("CRC failed." and the two values) and returns false.
bool VerifyPacketCrc(const uint8_t* block, ConsoleSink& console);

// A received text payload: the 57 payload bytes with a zero appended, read
// as a zero-terminated string.
std::string PayloadText(const uint8_t* block);

// Case-insensitive (ASCII) test that text begins with prefix.
bool StartsWithIgnoringCase(const std::string& text, const char* prefix);

// A command packet: the text formatted into a zeroed 64-byte buffer, its
// first 57 bytes as payload, number 0, length 57.
Block BuildTextPacket(PacketType type, const std::string& text);

// A RawTextBlock: the text's first 64 bytes from byte 0, zero-filled after
// it; no type byte, no CRC.
Block BuildRawTextBlock(const std::string& text);

}  // namespace ferrolt
