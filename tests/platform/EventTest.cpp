#include "platform/Event.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace ferrolt::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Generous: these check that a wait ends, not how fast.
constexpr auto kLongWait = 5000ms;
constexpr auto kShortWait = 100ms;
constexpr auto kLateness = 2000ms;

// Given a cancel listed before a completion, a wait on both reports the
// cancel whenever it is set, and otherwise ends as the events and its time-out say.
class WaitAnyTest : public ::testing::Test {
 protected:
  Event cancel;
  Event completion;
};

TEST_F(WaitAnyTest, FirstListedWinsWhenBothAreSet) {
  completion.Set();
  cancel.Set();
  EXPECT_EQ(WaitAny({&cancel, &completion}, kShortWait), 0);
  EXPECT_EQ(WaitAny({&completion, &cancel}, kShortWait), 0);
}

TEST_F(WaitAnyTest, ReportsTheOneSetEvent) {
  completion.Set();
  EXPECT_EQ(WaitAny({&cancel, &completion}, kShortWait), 1);
}

TEST_F(WaitAnyTest, TimesOutAfterAboutTheTimeAskedWhenNothingIsSet) {
  const auto start = Clock::now();
  EXPECT_EQ(WaitAny({&cancel, nullptr, &completion}, kShortWait), kWaitTimedOut);
  const auto elapsed = Clock::now() - start;
  EXPECT_GE(elapsed, kShortWait - 5ms);
  EXPECT_LT(elapsed, kShortWait + kLateness);
}

TEST_F(WaitAnyTest, SetFromAnotherThreadWakesTheWait) {
  std::thread setter([this] {
    std::this_thread::sleep_for(50ms);
    completion.Set();
  });
  const auto start = Clock::now();
  EXPECT_EQ(WaitAny({&cancel, &completion}, kLongWait), 1);
  EXPECT_LT(Clock::now() - start, kLongWait / 2);
  setter.join();
}

TEST_F(WaitAnyTest, ResetEventNoLongerEndsAWait) {
  cancel.Set();
  cancel.Reset();
  EXPECT_FALSE(cancel.IsSet());
  EXPECT_EQ(WaitAny({&cancel}, 10ms), kWaitTimedOut);
  EXPECT_FALSE(cancel.WaitFor(10ms));
}

}  // namespace
}  // namespace ferrolt::platform
