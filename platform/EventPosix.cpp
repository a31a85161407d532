#include "platform/Event.h"

#include <algorithm>

namespace ferrolt::platform {

// A waiter parked on several events at once: each event it is attached to
// notifies it when it is set.
struct Event::Waiter {
  std::mutex mutex;
  std::condition_variable wake;
  bool notified = false;

  void Notify() {
    std::lock_guard<std::mutex> lock(mutex);
    notified = true;
    wake.notify_one();
  }
};

Event::Event() = default;
Event::~Event() = default;

void Event::Set() {
  std::lock_guard<std::mutex> lock(mutex_);
  set_ = true;
  changed_.notify_all();
  for (Waiter* waiter : waiters_) waiter->Notify();
}

void Event::Reset() {
  std::lock_guard<std::mutex> lock(mutex_);
  set_ = false;
}

bool Event::IsSet() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return set_;
}

bool Event::WaitFor(std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [this] { return set_; });
}

void Event::Wait() const {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return set_; });
}

void Event::Attach(Waiter* waiter) const {
  std::lock_guard<std::mutex> lock(mutex_);
  waiters_.push_back(waiter);
}

void Event::Detach(Waiter* waiter) const {
  std::lock_guard<std::mutex> lock(mutex_);
  waiters_.erase(std::remove(waiters_.begin(), waiters_.end(), waiter), waiters_.end());
}

namespace {

int FirstSetOf(std::initializer_list<const Event*> events) {
  int index = 0;
  for (const Event* event : events) {
    if (event != nullptr && event->IsSet()) return index;
    ++index;
  }
  return kWaitTimedOut;
}

}  // namespace

// Registers one waiter with every listed event for the length of a WaitAny.
class EventWaiter {
 public:
  explicit EventWaiter(std::initializer_list<const Event*> events) : events_(events) {
    for (const Event* event : events_)
      if (event != nullptr) event->Attach(&waiter_);
  }
  ~EventWaiter() {
    for (const Event* event : events_)
      if (event != nullptr) event->Detach(&waiter_);
  }
  EventWaiter(const EventWaiter&) = delete;
  EventWaiter& operator=(const EventWaiter&) = delete;

  int FirstSet() const { return FirstSetOf(events_); }

  int Wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      if (int index = FirstSet(); index != kWaitTimedOut) return index;
      std::unique_lock<std::mutex> lock(waiter_.mutex);
      if (!waiter_.wake.wait_until(lock, deadline, [this] { return waiter_.notified; })) {
        lock.unlock();
        return FirstSet();  // an event set right at the deadline still counts
      }
      waiter_.notified = false;
    }
  }

 private:
  std::initializer_list<const Event*> events_;
  Event::Waiter waiter_;
};

int WaitAny(std::initializer_list<const Event*> events, std::chrono::milliseconds timeout) {
  // With writes in flight most waits find their event set already: no need
  // to park a waiter on every event for them.
  if (const int index = FirstSetOf(events); index != kWaitTimedOut) return index;
  EventWaiter waiter(events);
  return waiter.Wait(timeout);
}

}  // namespace ferrolt::platform
