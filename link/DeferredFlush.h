// A flush put off: a stream whose lines need not reach their reader one by
// one is flushed by a thread of its own within a fixed time of the first
// request since its last flush, so a run of lines costs one write a period
// instead of one a line, and no line waits longer than that period, however
// long the writer then waits itself.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace ferrolt {

class DeferredFlush {
 public:
  DeferredFlush(std::function<void()> flush, std::chrono::milliseconds within);
  // Stops, so the thread never calls flush again.
  ~DeferredFlush();
  DeferredFlush(const DeferredFlush&) = delete;
  DeferredFlush& operator=(const DeferredFlush&) = delete;

  // What was written before the call is flushed within the period. The
  // thread starts at the first request, so that it inherits the signal mask
  // the process has by then.
  void Request();
  // Flushes now; from then on every request flushes at once, on its caller's
  // thread. Waits out a flush under way, never the thread itself, which is
  // detached: a run may end on any thread, even one the system made for a
  // console event, with the flushing thread parked or not yet scheduled.
  // Safe to repeat.
  void Stop();

 private:
  struct State;
  // Shared with the thread, which may still be waking after the owner is gone.
  std::shared_ptr<State> state_;
};

}  // namespace ferrolt
