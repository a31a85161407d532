#include "link/DeferredFlush.h"

#include <utility>

namespace ferrolt {

DeferredFlush::DeferredFlush(std::function<void()> flush, std::chrono::milliseconds within)
    : flush_(std::move(flush)), within_(within) {}

DeferredFlush::~DeferredFlush() { Stop(); }

void DeferredFlush::Request() {
  if (stopped_.load()) {
    flush_();
    return;
  }
  // Only the first request of a period wakes the thread.
  if (pending_.exchange(true)) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_.load()) {
    flush_();
    return;
  }
  if (!thread_.joinable()) thread_ = std::thread([this] { Run(); });
  wake_.notify_one();
}

void DeferredFlush::Stop() {
  std::thread thread;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_.exchange(true)) return;
    thread = std::move(thread_);
    wake_.notify_one();
  }
  if (thread.joinable()) thread.join();
  flush_();
}

void DeferredFlush::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopped_.load() || pending_.load(); });
    // Lines written meanwhile go out with this flush.
    if (wake_.wait_for(lock, within_, [this] { return stopped_.load(); })) return;
    // Cleared before the flush: a line written after it asks for the next.
    pending_.store(false);
    lock.unlock();
    flush_();
    lock.lock();
  }
}

}  // namespace ferrolt
