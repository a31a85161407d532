#include "platform/Event.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/ClockSlack.h"

namespace ferrolt::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Generous: these check that a wait ends, not how fast.
constexpr auto kLongWait = 5000ms;
constexpr auto kShortWait = 100ms;
constexpr auto kLateness = 2000ms;

// Given events in a wait, the first one listed that is set wins, whichever
// it is, and a reset event no longer ends a wait.
TEST(WaitAnyTest, FirstListedSetEventWinsAndAResetOneNoLongerCounts) {
  Event cancel;
  Event completion;
  completion.Set();
  EXPECT_EQ(WaitAny({&cancel, &completion}, kShortWait), 1);
  cancel.Set();
  EXPECT_EQ(WaitAny({&cancel, &completion}, kShortWait), 0);
  EXPECT_EQ(WaitAny({&completion, &cancel}, kShortWait), 0);
  cancel.Reset();
  EXPECT_FALSE(cancel.IsSet());
  EXPECT_EQ(WaitAny({&cancel}, 10ms), kWaitTimedOut);
  EXPECT_FALSE(cancel.WaitFor(10ms));
}

// Given nothing set, a wait times out after about the time asked; a set from
// another thread wakes it at once. Null entries keep their places.
TEST(WaitAnyTest, TimesOutOrWakesOnASetFromAnotherThread) {
  Event cancel;
  Event completion;
  auto start = Clock::now();
  EXPECT_EQ(WaitAny({&cancel, nullptr, &completion}, kShortWait), kWaitTimedOut);
  const auto elapsed = Clock::now() - start;
  EXPECT_GE(elapsed, test::AtLeast(kShortWait));
  EXPECT_LT(elapsed, kShortWait + kLateness);

  std::thread setter([&] {
    std::this_thread::sleep_for(50ms);
    completion.Set();
  });
  start = Clock::now();
  EXPECT_EQ(WaitAny({&cancel, nullptr, &completion}, kLongWait), 2);
  EXPECT_LT(Clock::now() - start, kLongWait / 2);
  setter.join();
}

}  // namespace
}  // namespace ferrolt::platform
