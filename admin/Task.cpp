#include "admin/Task.h"

#include <future>
#include <mutex>
#include <thread>

namespace ferrolt {

// The thread holds the promise only, never the state: the last handle to go
// detaches a thread that still runs, so releasing a handle cannot block.
struct Task::State {
  std::shared_future<void> done;
  std::mutex joinMutex;  // guards the join, which waiters may race to
  std::thread thread;

  ~State() {
    if (thread.joinable()) thread.detach();
  }
  // Once the body has returned, the thread only ends: a waiter joins it, so
  // that nothing of the task runs when the wait returns.
  void Join() {
    std::lock_guard<std::mutex> lock(joinMutex);
    if (thread.joinable() && thread.get_id() != std::this_thread::get_id()) thread.join();
  }
};

Task Task::Start(std::function<void()> body) {
  auto finished = std::make_shared<std::promise<void>>();
  Task task;
  task.state_ = std::make_shared<State>();
  task.state_->done = finished->get_future().share();
  task.state_->thread = std::thread([body = std::move(body), finished]() mutable {
    body();
    // What the body holds is released before a waiter is let go.
    body = nullptr;
    finished->set_value();
  });
  return task;
}

void Task::Wait() const {
  if (state_ == nullptr) return;
  state_->done.wait();
  state_->Join();
}

bool Task::WaitFor(std::chrono::milliseconds timeout) const {
  if (state_ == nullptr) return true;
  if (state_->done.wait_for(timeout) != std::future_status::ready) return false;
  state_->Join();
  return true;
}

}  // namespace ferrolt
