#include "platform/Transfer.h"

#include <gtest/gtest.h>

#include <chrono>

namespace ferrolt::platform {
namespace {

using namespace std::chrono_literals;

// Given a read transfer, it reports nothing until completed, then keeps the
// first completion whatever comes after.
TEST(TransferTest, KeepsItsFirstCompletion) {
  Transfer read(64);
  uint8_t out[64] = {};
  EXPECT_FALSE(read.IsComplete());
  EXPECT_EQ(read.BytesTransferred(), 0u);
  EXPECT_EQ(read.CopyData(out, sizeof out), 0u);

  uint8_t first[64];
  for (int i = 0; i < 64; ++i) first[i] = static_cast<uint8_t>(i);
  read.Complete(true, first, 64);
  const uint8_t second[64] = {};
  read.Complete(false, second, 0);

  EXPECT_TRUE(read.Completion().WaitFor(0ms));
  EXPECT_TRUE(read.Succeeded());
  EXPECT_EQ(read.BytesTransferred(), 64u);
  ASSERT_EQ(read.CopyData(out, sizeof out), 64u);
  EXPECT_EQ(out[63], 63);
}

TEST(TransferTest, FailedTransferCarriesNoBytes) {
  Transfer read(64);
  const uint8_t data[64] = {1};
  read.Complete(false, data, 64);
  uint8_t out[64] = {};
  EXPECT_TRUE(read.IsComplete());
  EXPECT_FALSE(read.Succeeded());
  EXPECT_EQ(read.CopyData(out, sizeof out), 0u);
}

}  // namespace
}  // namespace ferrolt::platform
