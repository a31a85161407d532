#include "link/DevicePacket.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace ferrolt {
namespace {

// Given the CRC's parameters, it reproduces the known check values.
TEST(Crc8Values, CheckValues) {
  EXPECT_EQ(ComputeCrc8(reinterpret_cast<const uint8_t*>("123456789"), 9), 0x0B);
  const uint8_t zero = 0;
  EXPECT_EQ(ComputeCrc8(&zero, 1), 0xFF);
  EXPECT_EQ(ComputeCrc8(&zero, 0), 0x00);
  EXPECT_EQ(ComputeCrc8(nullptr, 0), 0x00);
}

// Given a zeroed 64-byte text buffer, BuildPacket writes the header, the
// text, the untouched rest and a CRC the receiver accepts.
TEST(PacketBuilding, VersionRequestBytes) {
  uint8_t text[kBlockSize] = {};
  std::strcpy(reinterpret_cast<char*>(text), "Version Retrieval");
  Block packet{};
  ASSERT_EQ(BuildPacket(2, 0, text, 57, packet.data()), 64);
  const uint8_t header[] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x39};
  EXPECT_EQ(std::memcmp(packet.data(), header, sizeof(header)), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(packet.data() + 6)), "Version Retrieval");
  for (size_t i = 6 + 17; i < 63; ++i) EXPECT_EQ(packet[i], 0) << "byte " << i;
  EXPECT_TRUE(PacketCrcMatches(packet.data()));
  EXPECT_EQ(BuildTextPacket(PacketType::Version, "Version Retrieval"), packet);
}

// Given a buffer full of old bytes, a short chunk gets its number
// little-endian, and the payload past its length is left as it was.
TEST(PacketBuilding, ShortChunkKeepsOldBytesAndANumberLittleEndian) {
  Block packet;
  packet.fill(0x5A);
  const uint8_t chunk[2] = {1, 2};
  ASSERT_EQ(BuildPacket(5, 0x102, chunk, 2, packet.data()), 64);
  const uint8_t start[] = {0x05, 0x02, 0x01, 0x00, 0x00, 0x02, 1, 2, 0x5A};
  EXPECT_EQ(std::memcmp(packet.data(), start, sizeof(start)), 0);
  EXPECT_EQ(packet[62], 0x5A);
  EXPECT_TRUE(PacketCrcMatches(packet.data()));
  EXPECT_EQ(PacketTypeOf(packet.data()), 5);
  EXPECT_EQ(PacketNumber(packet.data()), 0x102u);
  EXPECT_EQ(PacketLength(packet.data()), 2);
  packet[1] = 0x78, packet[2] = 0x56, packet[3] = 0x34, packet[4] = 0x12;
  EXPECT_EQ(PacketNumber(packet.data()), 0x12345678u);
}

// Given a length of 0 or above 57, or no buffer, nothing is written.
TEST(PacketBuilding, RefusalsLeaveTheBufferUntouched) {
  Block packet;
  packet.fill(0xEE);
  const Block before = packet;
  uint8_t source[64] = {1};
  EXPECT_EQ(BuildPacket(1, 1, source, 0, packet.data()), 0);
  EXPECT_EQ(BuildPacket(1, 1, source, 58, packet.data()), 0);
  EXPECT_EQ(BuildPacket(1, 1, source, 57, nullptr), 0);
  EXPECT_EQ(packet, before);
  EXPECT_EQ(BuildPacket(1, 1, source, 57, packet.data()), 64);
}

// Given texts of the edge lengths, command packets carry 57 bytes of them,
// raw blocks 64, and a payload with no terminator reads as its 57 bytes.
TEST(PacketText, TextPacketsRawBlocksAndUnterminatedPayloads) {
  const std::string long70(70, 'x');
  const Block packet = BuildTextPacket(PacketType::Cli, long70);
  EXPECT_EQ(PacketLength(packet.data()), 57);
  EXPECT_EQ(PacketNumber(packet.data()), 0u);
  EXPECT_EQ(PayloadText(packet.data()), std::string(57, 'x'));

  const Block raw = BuildRawTextBlock("Ending upload");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(raw.data())), "Ending upload");
  for (size_t i = 13; i < 64; ++i) EXPECT_EQ(raw[i], 0);
  const Block full = BuildRawTextBlock(long70);
  EXPECT_EQ(std::string(full.begin(), full.end()), std::string(64, 'x'));

  Block unterminated;
  unterminated.fill('a');
  EXPECT_EQ(PayloadText(unterminated.data()), std::string(57, 'a'));
}

TEST(PacketText, PrefixIgnoresCase) {
  EXPECT_TRUE(StartsWithIgnoringCase("Starting Logs 10 1", "starting logs"));
  EXPECT_TRUE(StartsWithIgnoringCase("ENDING download", "ending download"));
  EXPECT_FALSE(StartsWithIgnoringCase("start", "starting"));
  EXPECT_FALSE(StartsWithIgnoringCase("xstarting", "starting"));
}

}  // namespace
}  // namespace ferrolt
