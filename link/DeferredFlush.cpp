#include "link/DeferredFlush.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace ferrolt {

struct DeferredFlush::State {
  State(std::function<void()> flushFunction, std::chrono::milliseconds period)
      : flush(std::move(flushFunction)), within(period) {}

  // The thread's body: a period after each first request, one flush.
  void Run();

  const std::function<void()> flush;
  const std::chrono::milliseconds within;
  // Guards the flags; the thread holds it across its flushes, so that once
  // Stop has it, no flush of the thread's is under way or still to come.
  std::mutex mutex;
  std::condition_variable wake;
  bool pending = false;
  bool stopped = false;
  bool started = false;
};

void DeferredFlush::State::Run() {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    wake.wait(lock, [this] { return pending || stopped; });
    // Lines written meanwhile go out with this flush; a stop flushes itself.
    if (wake.wait_for(lock, within, [this] { return stopped; })) return;
    pending = false;
    flush();
  }
}

DeferredFlush::DeferredFlush(std::function<void()> flush, std::chrono::milliseconds within)
    : state_(std::make_shared<State>(std::move(flush), within)) {}

DeferredFlush::~DeferredFlush() { Stop(); }

void DeferredFlush::Request() {
  std::unique_lock<std::mutex> lock(state_->mutex);
  if (state_->stopped) {
    lock.unlock();
    state_->flush();
    return;
  }
  if (state_->pending) return;
  state_->pending = true;
  if (!state_->started) {
    state_->started = true;
    std::thread([state = state_] { state->Run(); }).detach();
  }
  state_->wake.notify_one();
}

void DeferredFlush::Stop() {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->stopped = true;
  }
  state_->wake.notify_one();
  state_->flush();
}

}  // namespace ferrolt
