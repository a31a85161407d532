// A flush put off: a stream whose lines need not reach their reader one by
// one is flushed by a thread of its own within a fixed time of the first
// request since its last flush, so a run of lines costs one write a period
// instead of one a line, and no line waits longer than that period.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace ferrolt {

class DeferredFlush {
 public:
  DeferredFlush(std::function<void()> flush, std::chrono::milliseconds within);
  ~DeferredFlush();
  DeferredFlush(const DeferredFlush&) = delete;
  DeferredFlush& operator=(const DeferredFlush&) = delete;

  // What was written before the call is flushed within the period. The
  // thread starts at the first request, so that it inherits the signal mask
  // the process has by then.
  void Request();
  // Ends the thread and flushes; every request after it flushes at once.
  void Stop();

 private:
  void Run();

  const std::function<void()> flush_;
  const std::chrono::milliseconds within_;
  std::atomic<bool> pending_{false};
  std::atomic<bool> stopped_{false};
  std::mutex mutex_;  // guards the thread and the wake-up
  std::condition_variable wake_;
  std::thread thread_;
};

}  // namespace ferrolt
