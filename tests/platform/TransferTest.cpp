#include "platform/Transfer.h"

#include <gtest/gtest.h>

#include <chrono>

namespace ferrolt::platform {
namespace {

using namespace std::chrono_literals;

// Given a read transfer, it reports nothing until completed, then keeps the
// first completion whatever comes after; a failed one keeps the bytes it
// moved (a cancel that crossed the block's arrival).
TEST(TransferTest, KeepsItsFirstCompletionAndAFailedOneKeepsItsBytes) {
  Transfer read(64);
  uint8_t out[64] = {};
  EXPECT_FALSE(read.IsComplete());
  EXPECT_EQ(read.CopyData(out, sizeof out), 0u);
  uint8_t first[64];
  for (int i = 0; i < 64; ++i) first[i] = static_cast<uint8_t>(i);
  read.Complete(true, first, 64);
  read.Complete(false, nullptr, 0);
  EXPECT_TRUE(read.Completion().WaitFor(0ms));
  EXPECT_TRUE(read.Succeeded());
  EXPECT_EQ(read.BytesTransferred(), 64u);
  ASSERT_EQ(read.CopyData(out, sizeof out), 64u);
  EXPECT_EQ(out[63], 63);

  Transfer failed(64);
  failed.Complete(false, first, 64);
  failed.Complete(true, first, 64);
  EXPECT_TRUE(failed.IsComplete());
  EXPECT_FALSE(failed.Succeeded());
  EXPECT_EQ(failed.BytesTransferred(), 64u);
  EXPECT_EQ(failed.CopyData(out, sizeof out), 64u);
}

}  // namespace
}  // namespace ferrolt::platform
