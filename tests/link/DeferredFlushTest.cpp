#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "link/DeferredFlush.h"
#include "tests/support/ClockSlack.h"

namespace ferrolt {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::AtLeast;

constexpr auto kPeriod = 100ms;
// Generous: a loaded machine may schedule the flushing thread late.
constexpr auto kLateness = 2000ms;
// Longer than any of these tests: the thread's own flush never comes.
constexpr auto kNever = 60s;
constexpr int kBurst = 1000;

// Polls until done() or the lateness has passed.
template <typename Done>
bool WaitUntil(Done done) {
  const auto deadline = Clock::now() + kLateness;
  while (!done()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// Given a burst of requests, the thread flushes a period after the first,
// once for the burst rather than once a request.
TEST(DeferredFlushTest, ABurstIsFlushedOnceAPeriodAfterItsFirstRequest) {
  std::atomic<int> flushes{0};
  DeferredFlush deferred([&] { ++flushes; }, kPeriod);
  const auto start = Clock::now();
  for (int i = 0; i < kBurst; ++i) deferred.Request();
  const auto burst = Clock::now() - start;
  ASSERT_TRUE(WaitUntil([&] { return flushes.load() > 0; }));
  EXPECT_GE(Clock::now() - start, AtLeast(kPeriod));
  // One flush a period that the burst lasted, and the last one.
  EXPECT_LE(flushes.load(), 2 + burst / kPeriod);
}

// Given a stop, what is pending is flushed at once and so is every later
// request, on the caller's thread.
TEST(DeferredFlushTest, AfterAStopEveryRequestFlushesAtOnce) {
  std::atomic<int> flushes{0};
  DeferredFlush deferred([&] { ++flushes; }, kNever);
  deferred.Request();
  EXPECT_EQ(flushes.load(), 0);
  deferred.Stop();
  EXPECT_EQ(flushes.load(), 1);
  deferred.Request();
  deferred.Request();
  EXPECT_EQ(flushes.load(), 3);
}

// Given a stop while the thread flushes, the stop's own flush follows that
// one: two flushes of one stream never overlap, at exit least of all.
TEST(DeferredFlushTest, AStopWaitsOutTheThreadsFlushUnderWay) {
  std::atomic<int> flushes{0};
  std::atomic<int> flushing{0};
  std::atomic<bool> overlapped{false};
  std::atomic<bool> release{false};
  DeferredFlush deferred(
      [&] {
        if (flushing.fetch_add(1) != 0) overlapped = true;
        while (!release.load()) std::this_thread::sleep_for(1ms);
        ++flushes;
        flushing.fetch_sub(1);
      },
      1ms);
  deferred.Request();
  const bool underWay = WaitUntil([&] { return flushing.load() == 1; });
  if (!underWay) release = true;
  ASSERT_TRUE(underWay);
  std::thread releaser([&] {
    std::this_thread::sleep_for(kPeriod);
    release = true;
  });
  deferred.Stop();
  releaser.join();
  EXPECT_EQ(flushes.load(), 2);
  EXPECT_FALSE(overlapped.load());
}

}  // namespace
}  // namespace ferrolt
