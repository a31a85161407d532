// A background task that starts at once on a thread of its own. Its handle
// can be copied and waited on from several threads; dropping or replacing a
// handle never waits, and a task still running at process end ends with it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace ferrolt {

class Task {
 public:
  Task() = default;
  static Task Start(std::function<void()> body);

  bool Valid() const { return state_ != nullptr; }
  // Blocks until the task has returned and its thread has ended; at once for
  // an empty handle.
  void Wait() const;
  // True when the task has returned within timeout (or the handle is empty);
  // its thread has then ended too.
  bool WaitFor(std::chrono::milliseconds timeout) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace ferrolt
