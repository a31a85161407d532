// A manual-reset event and a wait on several of them, after the Win32 model
// the link layer is written against: the first signalled event in the list
// wins, so a cancel listed first beats a completion at the same moment.
#pragma once

#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <mutex>
#include <vector>

namespace ferrolt::platform {

class Event {
 public:
  Event() = default;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void Set();
  void Reset();
  bool IsSet() const;

  // Waits until the event is set or the time-out passes; true when set.
  bool WaitFor(std::chrono::milliseconds timeout) const;
  // Waits without a limit. Only for waits that the design keeps unbounded.
  void Wait() const;

 private:
  friend class EventWaiter;
  struct Waiter;
  void Attach(Waiter* waiter) const;
  void Detach(Waiter* waiter) const;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  mutable std::vector<Waiter*> waiters_;
  bool set_ = false;
};

// Result of WaitAny: the index of the first set event in the list, or one of
// these when none is set.
inline constexpr int kWaitTimedOut = -1;

// Waits until one of the events is set or the time-out passes. Returns the
// index (in list order) of the first event found set, or kWaitTimedOut.
// A null entry never becomes set.
int WaitAny(std::initializer_list<const Event*> events, std::chrono::milliseconds timeout);

}  // namespace ferrolt::platform
