#include "link/DevicePacket.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/AsciiText.h"

namespace ferrolt {

namespace {

constexpr uint8_t kCrcPolynomial = 0x07;
constexpr uint8_t kCrcFinalXor = 0xFF;
constexpr uint8_t kTopBit = 0x80;
constexpr int kBitsPerByte = 8;
constexpr size_t kCrcTableSize = 256;
constexpr char kHexDigits[] = "0123456789ABCDEF";
constexpr unsigned kNibbleBits = 4;
constexpr uint8_t kNibbleMask = 0x0F;

std::array<uint8_t, kCrcTableSize> BuildCrcTable() {
  std::array<uint8_t, kCrcTableSize> table{};
  for (size_t i = 0; i < kCrcTableSize; ++i) {
    uint8_t c = static_cast<uint8_t>(i);
    for (int bit = 0; bit < kBitsPerByte; ++bit)
      c = (c & kTopBit) ? static_cast<uint8_t>((c << 1) ^ kCrcPolynomial) : static_cast<uint8_t>(c << 1);
    table[i] = c;
  }
  return table;
}

// A function-local static: built once, and a concurrent first use waits for it.
const std::array<uint8_t, kCrcTableSize>& CrcTable() {
  static const std::array<uint8_t, kCrcTableSize> table = BuildCrcTable();
  return table;
}

void PutNumber(uint8_t* packet, uint32_t number) {
  for (size_t i = 0; i < sizeof(number); ++i) packet[kNumberOffset + i] = static_cast<uint8_t>(number >> (8 * i));
}

}  // namespace


uint8_t ComputeCrc8(const uint8_t* data, int count) {
  if (count <= 0 || data == nullptr) return 0x00;
  const auto& table = CrcTable();
  uint8_t c = 0;
  for (int i = 0; i < count; ++i) c = table[c ^ data[i]];
  return c ^ kCrcFinalXor;
}

int BuildPacket(uint8_t type, uint32_t number, const uint8_t* source, uint8_t length, uint8_t* packet) {
  if (packet == nullptr || source == nullptr || length == 0 || length > kPayloadSize) return 0;
  packet[kTypeOffset] = type;
  PutNumber(packet, number);
  packet[kLengthOffset] = length;
  std::memcpy(packet + kPayloadOffset, source, length);
  packet[kCrcOffset] = ComputeCrc8(packet, static_cast<int>(kCrcOffset));
  return static_cast<int>(kBlockSize);
}

std::string BytesToHex(const uint8_t* data, int count) {
  if (data == nullptr || count <= 0) return {};
  std::string hex(static_cast<size_t>(count) * 2, '\0');
  for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
    hex[2 * i] = kHexDigits[data[i] >> kNibbleBits];
    hex[2 * i + 1] = kHexDigits[data[i] & kNibbleMask];
  }
  return hex;
}

uint8_t PacketTypeOf(const uint8_t* block) { return block[kTypeOffset]; }

uint32_t PacketNumber(const uint8_t* block) {
  uint32_t number = 0;
  for (size_t i = 0; i < sizeof(number); ++i) number |= static_cast<uint32_t>(block[kNumberOffset + i]) << (8 * i);
  return number;
}

uint8_t PacketLength(const uint8_t* block) { return block[kLengthOffset]; }

bool PacketCrcMatches(const uint8_t* block) {
  return ComputeCrc8(block, static_cast<int>(kCrcOffset)) == block[kCrcOffset];
}

bool VerifyPacketCrc(const uint8_t* block, ConsoleSink& console) {
  const uint8_t computed = ComputeCrc8(block, static_cast<int>(kCrcOffset));
  if (computed == block[kCrcOffset]) return true;
  console.Print("CRC failed.\n");
  console.PrintFormatted("CRC you gave me - %x\n", static_cast<unsigned>(block[kCrcOffset]));
  console.PrintFormatted("CRC I calculated - %x\n", static_cast<unsigned>(computed));
  return false;
}

std::string PayloadText(const uint8_t* block) {
  char text[kTextBufferSize] = {};
  std::memcpy(text, block + kPayloadOffset, kPayloadSize);
  return std::string(text);
}

bool StartsWithIgnoringCase(const std::string& text, const char* prefix) {
  const size_t length = std::strlen(prefix);
  if (text.size() < length) return false;
  return std::equal(prefix, prefix + length, text.begin(),
                    [](char a, char b) { return platform::AsciiLower(a) == platform::AsciiLower(b); });
}

Block BuildTextPacket(PacketType type, const std::string& text) {
  // The text goes through a zeroed 64-byte buffer with room for its
  // terminator; the packet carries that buffer's first 57 bytes.
  uint8_t buffer[kBlockSize] = {};
  std::memcpy(buffer, text.data(), std::min(text.size(), kBlockSize - 1));
  Block packet{};
  BuildPacket(static_cast<uint8_t>(type), 0, buffer, static_cast<uint8_t>(kPayloadSize), packet.data());
  return packet;
}

Block BuildRawTextBlock(const std::string& text) {
  Block block{};
  std::memcpy(block.data(), text.data(), std::min(text.size(), kBlockSize));
  return block;
}

}  // namespace ferrolt
