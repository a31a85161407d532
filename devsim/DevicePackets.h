// Packet helpers on the device's side, shared by every service. The device
// speaks the same 64-byte formats as the tool; these mirror them without
// depending on the tool's code, so the emulator checks the tool instead of
// repeating it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "devsim/Service.h"

namespace ferrolt::devsim {

// Where a packet's fields sit: type at 0, number (u32 little-endian), length,
// payload, CRC-8 of everything before it.
inline constexpr size_t kNumberOffset = 1;
inline constexpr size_t kLengthOffset = 5;
inline constexpr size_t kPayloadOffset = 6;
inline constexpr size_t kPayloadSize = 57;
inline constexpr size_t kCrcOffset = 63;

inline constexpr uint8_t kTypeUpgrade = 1, kTypeVersion = 2, kTypeLogs = 3, kTypeCli = 4, kTypeUpload = 5,
                         kTypeDownload = 6, kTypeCancel = 7, kTypeOrt = 8, kTypeNack = 10;

uint8_t Crc8(const uint8_t* data, size_t count);
bool CrcMatches(const Block& block);
uint8_t TypeOf(const Block& block);
uint32_t NumberOf(const Block& block);
uint8_t LengthOf(const Block& block);
// The payload's first byte.
const uint8_t* PayloadOf(const Block& block);
// Gives the block a wrong CRC, as a fault does.
void CorruptCrc(Block& block);
// The payload as text (57 bytes plus a zero).
std::string PayloadText(const Block& block);
// The block as text from byte 0 (a RawTextBlock), up to its zero or 64 bytes.
std::string RawText(const Block& block);
// Bytes as upper-case hex, two digits each, as the tool logs them.
std::string HexOf(const uint8_t* data, size_t count);
// A packet with the given fields and payload bytes (at most 57), CRC set.
Block MakePacket(uint8_t type, uint32_t number, const uint8_t* payload, size_t length);
// How many data packets carry size bytes.
int32_t PacketCountFor(int32_t size);
// A text reply: number 0, length 57, the text zero-padded.
Block MakeTextPacket(uint8_t type, const std::string& text);

}  // namespace ferrolt::devsim
