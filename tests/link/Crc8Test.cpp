#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <thread>
#include <vector>

#include "link/DevicePacket.h"

namespace ferrolt {
namespace {

// Given several threads that all compute their first CRC at once, each gets
// the right value (the table is complete before anyone reads it).
TEST(Crc8FirstUse, ConcurrentFirstComputationsAgree) {
  constexpr int kThreads = 8;
  const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  std::array<uint8_t, kThreads> results{};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&, i] { results[i] = ComputeCrc8(digits, sizeof(digits)); });
  for (auto& thread : threads) thread.join();
  for (uint8_t result : results) EXPECT_EQ(result, 0x0B);
}

// Given the CRC's parameters, it reproduces the known check values and table entries.
TEST(Crc8Values, CheckValues) {
  const char* digits = "123456789";
  EXPECT_EQ(ComputeCrc8(reinterpret_cast<const uint8_t*>(digits), 9), 0x0B);
  const uint8_t zero = 0;
  EXPECT_EQ(ComputeCrc8(&zero, 1), 0xFF);
  EXPECT_EQ(ComputeCrc8(&zero, 0), 0x00);
  EXPECT_EQ(ComputeCrc8(nullptr, 0), 0x00);
}

TEST(Crc8Values, TableEntries) {
  const auto& table = Crc8::Table();
  EXPECT_EQ(table[0x00], 0x00);
  EXPECT_EQ(table[0x01], 0x07);
  EXPECT_EQ(table[0x80], 0x89);
  EXPECT_EQ(table[0xFF], 0xF3);
}

// Given a packet whose any single bit is flipped, the check rejects it.
TEST(Crc8Values, SingleBitErrorsAreCaught) {
  uint8_t packet[kBlockSize] = {};
  const char* text = "Version Retrieval";
  uint8_t source[kPayloadSize] = {};
  std::memcpy(source, text, std::strlen(text));
  ASSERT_EQ(BuildPacket(2, 0, source, kPayloadSize, packet), 64);
  for (size_t bit = 0; bit < kBlockSize * 8; ++bit) {
    uint8_t damaged[kBlockSize];
    std::memcpy(damaged, packet, kBlockSize);
    damaged[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    EXPECT_FALSE(PacketCrcMatches(damaged)) << "bit " << bit;
  }
}

}  // namespace
}  // namespace ferrolt
