#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "link/DevicePacket.h"

namespace ferrolt {
namespace {

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

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

TEST(PacketBuilding, NumberIsLittleEndian) {
  const uint8_t chunk[3] = {0xAA, 0xBB, 0xCC};
  Block packet{};
  ASSERT_EQ(BuildPacket(1, 0x102, chunk, 3, packet.data()), 64);
  EXPECT_EQ(packet[1], 0x02);
  EXPECT_EQ(packet[2], 0x01);
  EXPECT_EQ(packet[3], 0x00);
  EXPECT_EQ(packet[4], 0x00);
  EXPECT_EQ(PacketNumber(packet.data()), 0x102u);
  EXPECT_EQ(PacketLength(packet.data()), 3);
  EXPECT_EQ(PacketTypeOf(packet.data()), 1);
  packet[1] = 0x78, packet[2] = 0x56, packet[3] = 0x34, packet[4] = 0x12;
  EXPECT_EQ(PacketNumber(packet.data()), 0x12345678u);
}

// Given a buffer full of old bytes, a short chunk leaves the payload past its
// length as it was.
TEST(PacketBuilding, PayloadPastLengthIsLeftAsItWas) {
  Block packet;
  packet.fill(0x5A);
  const uint8_t chunk[2] = {1, 2};
  ASSERT_EQ(BuildPacket(5, 7, chunk, 2, packet.data()), 64);
  EXPECT_EQ(packet[6], 1);
  EXPECT_EQ(packet[7], 2);
  EXPECT_EQ(packet[8], 0x5A);
  EXPECT_EQ(packet[62], 0x5A);
  EXPECT_TRUE(PacketCrcMatches(packet.data()));
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

// Given texts of the edge lengths, command packets carry 57 bytes of them and
// raw blocks 64.
TEST(PacketBuilding, TextPacketsAndRawBlocks) {
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
}

TEST(PacketText, HexIsUpperCaseTwoDigitsPerByte) {
  const uint8_t bytes[] = {0x0A, 0xFF};
  EXPECT_EQ(BytesToHex(bytes, 2), "0AFF");
  EXPECT_EQ(BytesToHex(bytes, 0), "");
  const Block packet = BuildTextPacket(PacketType::Version, "Version Retrieval");
  const std::string hex = BytesToHex(packet.data(), 64);
  EXPECT_EQ(hex.size(), 128u);
  EXPECT_EQ(hex.substr(0, 14), "02000000003956");
}

// Given a payload with no terminator, its text is all 57 bytes and no more.
TEST(PacketText, PayloadOfFiftySevenCharacters) {
  Block packet;
  packet.fill('a');
  EXPECT_EQ(PayloadText(packet.data()), std::string(57, 'a'));
  packet[6 + 4] = 0;
  EXPECT_EQ(PayloadText(packet.data()), "aaaa");
}

TEST(PacketText, PrefixIgnoresCase) {
  EXPECT_TRUE(StartsWithIgnoringCase("Starting Logs 10 1", "starting logs"));
  EXPECT_TRUE(StartsWithIgnoringCase("ENDING download", "ending download"));
  EXPECT_FALSE(StartsWithIgnoringCase("start", "starting"));
  EXPECT_FALSE(StartsWithIgnoringCase("xstarting", "starting"));
}

// Given a damaged packet, the check prints the three CRC lines; a sound one prints nothing.
TEST(PacketCheck, MismatchPrintsThreeLines) {
  Block packet = BuildTextPacket(PacketType::Upgrade, "hello");
  const uint8_t good = packet[63];
  CaptureStdout();
  EXPECT_TRUE(VerifyPacketCrc(packet.data()));
  EXPECT_EQ(GetCapturedStdout(), "");

  packet[63] = static_cast<uint8_t>(good ^ 0xF0);
  char expected[128];
  std::snprintf(expected, sizeof(expected), "CRC failed.\nCRC you gave me - %x\nCRC I calculated - %x\n",
                packet[63], good);
  CaptureStdout();
  EXPECT_FALSE(VerifyPacketCrc(packet.data()));
  EXPECT_EQ(GetCapturedStdout(), expected);
}

}  // namespace
}  // namespace ferrolt
