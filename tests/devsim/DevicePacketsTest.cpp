#include "devsim/DevicePackets.h"

#include <gtest/gtest.h>

#include <cstring>

namespace ferrolt::devsim {
namespace {

// Given the device's CRC-8, it matches the check values the tool relies on.
TEST(DeviceCrc, MatchesCheckValues) {
  const char* digits = "123456789";
  EXPECT_EQ(Crc8(reinterpret_cast<const uint8_t*>(digits), 9), 0x0B);
  const uint8_t zero = 0;
  EXPECT_EQ(Crc8(&zero, 1), 0xFF);
  EXPECT_EQ(Crc8(&zero, 0), 0x00);
}

// Given a packet built by the device, its bytes follow the 64-byte layout.
TEST(DevicePacketLayout, FieldsAreLittleEndianAndCrcClosesThePacket) {
  const uint8_t data[3] = {0xAA, 0xBB, 0xCC};
  const Block packet = MakePacket(kTypeLogs, 0x00000102, data, sizeof data);
  const uint8_t head[9] = {0x03, 0x02, 0x01, 0x00, 0x00, 0x03, 0xAA, 0xBB, 0xCC};
  EXPECT_EQ(std::memcmp(packet.data(), head, sizeof head), 0);
  EXPECT_EQ(packet[9], 0);
  EXPECT_EQ(packet[63], Crc8(packet.data(), 63));
  EXPECT_EQ(NumberOf(packet), 0x102u);
  EXPECT_TRUE(CrcMatches(packet));
}

TEST(DevicePacketLayout, TextPacketCarriesLength57AndZeroFill) {
  const Block packet = MakeTextPacket(kTypeVersion, "1.2.3");
  EXPECT_EQ(LengthOf(packet), 57);
  EXPECT_EQ(PayloadText(packet), "1.2.3");
  for (size_t i = 11; i < 63; ++i) EXPECT_EQ(packet[i], 0) << i;
  EXPECT_TRUE(CrcMatches(packet));
}

// Given texts that fill their space, it reads them without a terminator.
TEST(DevicePacketText, FullPayloadAndFullRawBlockReadWhole) {
  const std::string text57(57, 'x');
  EXPECT_EQ(PayloadText(MakeTextPacket(kTypeCli, text57)), text57);
  Block raw;
  raw.fill('y');
  EXPECT_EQ(RawText(raw), std::string(64, 'y'));
  Block flipped = MakeTextPacket(kTypeCli, "a");
  flipped[63] ^= 1;
  EXPECT_FALSE(CrcMatches(flipped));
}

}  // namespace
}  // namespace ferrolt::devsim
