#include "devsim/DevicePackets.h"

#include <algorithm>
#include <cstring>

namespace ferrolt::devsim {
namespace {

constexpr uint8_t kCrcPolynomial = 0x07;
constexpr uint8_t kCrcFinalXor = 0xFF;

// Built at compile time, so concurrent first use needs no guard.
constexpr std::array<uint8_t, 256> BuildCrcTable() {
  std::array<uint8_t, 256> table{};
  for (unsigned i = 0; i < 256; ++i) {
    uint8_t c = static_cast<uint8_t>(i);
    for (int bit = 0; bit < 8; ++bit) {
      c = (c & 0x80) != 0 ? static_cast<uint8_t>((c << 1) ^ kCrcPolynomial) : static_cast<uint8_t>(c << 1);
    }
    table[i] = c;
  }
  return table;
}

constexpr std::array<uint8_t, 256> kCrcTable = BuildCrcTable();

}  // namespace

uint8_t Crc8(const uint8_t* data, size_t count) {
  if (count == 0) return 0x00;
  uint8_t c = 0;
  for (size_t i = 0; i < count; ++i) c = kCrcTable[c ^ data[i]];
  return c ^ kCrcFinalXor;
}

bool CrcMatches(const Block& block) { return Crc8(block.data(), kCrcOffset) == block[kCrcOffset]; }

uint8_t TypeOf(const Block& block) { return block[0]; }

uint32_t NumberOf(const Block& block) {
  uint32_t number = 0;
  for (size_t i = 0; i < 4; ++i) number |= static_cast<uint32_t>(block[kNumberOffset + i]) << (8 * i);
  return number;
}

uint8_t LengthOf(const Block& block) { return block[kLengthOffset]; }

const uint8_t* PayloadOf(const Block& block) { return block.data() + kPayloadOffset; }

void CorruptCrc(Block& block) { block[kCrcOffset] ^= kCrcFinalXor; }

std::string PayloadText(const Block& block) {
  const uint8_t* payload = PayloadOf(block);
  const uint8_t* end = std::find(payload, payload + kPayloadSize, 0);
  return std::string(payload, end);
}

std::string RawText(const Block& block) {
  const uint8_t* end = std::find(block.begin(), block.end(), 0);
  return std::string(block.begin(), end);
}

std::string HexOf(const uint8_t* data, size_t count) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(count * 2);
  for (size_t i = 0; i < count; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 0xF];
  }
  return text;
}

Block MakePacket(uint8_t type, uint32_t number, const uint8_t* payload, size_t length) {
  Block block{};
  length = std::min(length, kPayloadSize);
  block[0] = type;
  for (size_t i = 0; i < 4; ++i) block[kNumberOffset + i] = static_cast<uint8_t>(number >> (8 * i));
  block[kLengthOffset] = static_cast<uint8_t>(length);
  if (length > 0) std::memcpy(block.data() + kPayloadOffset, payload, length);
  block[kCrcOffset] = Crc8(block.data(), kCrcOffset);
  return block;
}

Block MakeTextPacket(uint8_t type, const std::string& text) {
  Block block = MakePacket(type, 0, reinterpret_cast<const uint8_t*>(text.data()), std::min(text.size(), kPayloadSize));
  block[kLengthOffset] = kPayloadSize;
  block[kCrcOffset] = Crc8(block.data(), kCrcOffset);
  return block;
}

int32_t PacketCountFor(int32_t size) {
  return static_cast<int32_t>((static_cast<int64_t>(size) + kPayloadSize - 1) / kPayloadSize);
}

}  // namespace ferrolt::devsim
