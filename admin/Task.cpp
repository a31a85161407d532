#include "admin/Task.h"

#include <memory>
#include <thread>

namespace ferrolt {

Task Task::Start(std::function<void()> body) {
  auto finished = std::make_shared<std::promise<void>>();
  Task task;
  task.done_ = finished->get_future().share();
  // Detached: the handle's holders wait on the promise, never on the thread,
  // so releasing a handle cannot block.
  std::thread([body = std::move(body), finished]() mutable {
    body();
    finished->set_value();
  }).detach();
  return task;
}

void Task::Wait() const {
  if (done_.valid()) done_.wait();
}

bool Task::WaitFor(std::chrono::milliseconds timeout) const {
  return !done_.valid() || done_.wait_for(timeout) == std::future_status::ready;
}

}  // namespace ferrolt
