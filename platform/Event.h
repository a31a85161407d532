// A manual-reset event and a wait on several of them, after the Win32 model
// the link layer is written against: the first signalled event in the list
// wins, so a cancel listed first beats a completion at the same moment. On
// Windows it is the Win32 event itself, so overlapped I/O can complete on it
// and WaitAny is WaitForMultipleObjects; elsewhere a mutex and condition
// variables play its part.
#pragma once

#include <chrono>
#include <initializer_list>

#ifndef _WIN32
#include <condition_variable>
#include <mutex>
#include <vector>
#endif

namespace ferrolt::platform {

class Event {
 public:
  Event();
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void Set();
  void Reset();
  bool IsSet() const;

  // Waits until the event is set or the time-out passes; true when set.
  bool WaitFor(std::chrono::milliseconds timeout) const;
  // Waits without a limit. Only for waits that the design keeps unbounded.
  void Wait() const;

#ifdef _WIN32
  // The Win32 event handle (a HANDLE), for overlapped I/O that the system
  // completes on it. Null when the system could not create the event: such an
  // event is never set, and a wait on it fails.
  void* NativeHandle() const { return handle_; }

 private:
  void* const handle_;
#else
 private:
  friend class EventWaiter;
  struct Waiter;
  void Attach(Waiter* waiter) const;
  void Detach(Waiter* waiter) const;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  mutable std::vector<Waiter*> waiters_;
  bool set_ = false;
#endif
};

// Results of WaitAny when no event is found set.
inline constexpr int kWaitTimedOut = -1;
// Only a Win32 wait can fail outright (an event the system could not create).
inline constexpr int kWaitFailed = -2;

// Waits until one of the events is set or the time-out passes. Returns the
// index (in list order) of the first event found set, kWaitTimedOut, or
// kWaitFailed. A null entry never becomes set.
int WaitAny(std::initializer_list<const Event*> events, std::chrono::milliseconds timeout);

// The time left before deadline, rounded up so a wait never ends early, and
// never negative.
inline std::chrono::milliseconds TimeLeft(std::chrono::steady_clock::time_point deadline) {
  const auto left = deadline - std::chrono::steady_clock::now();
  return left > left.zero() ? std::chrono::ceil<std::chrono::milliseconds>(left) : std::chrono::milliseconds{0};
}

}  // namespace ferrolt::platform
