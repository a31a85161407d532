// How much shorter than it lasted a wait may be measured: the granularity of
// the clocks and waits a test times it with. Every lower bound on a measured
// time goes through AtLeast. On Windows (and Wine) timers and waits tick at
// up to 15.6 ms, and by some clocks a wait ends up to a tick early (a 50 ms
// wait measured as 49.84 ms); on Linux the monotonic clock and the waits on
// it are fine-grained, and a millisecond covers the rounding of a time-out
// to whole milliseconds.
#pragma once

#include <chrono>

namespace ferrolt::test {

#ifdef _WIN32
inline constexpr std::chrono::milliseconds kClockSlack{16};
#else
inline constexpr std::chrono::milliseconds kClockSlack{1};
#endif

// The least a wait of at least `least` may measure.
constexpr std::chrono::milliseconds AtLeast(std::chrono::milliseconds least) {
  return least > kClockSlack ? least - kClockSlack : std::chrono::milliseconds{0};
}

}  // namespace ferrolt::test
