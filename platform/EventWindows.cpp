#include <windows.h>
// After windows.h, which it needs.
#include <mmsystem.h>

#include <array>

#include "platform/Event.h"

namespace ferrolt::platform {
namespace {

constexpr BOOL kManualReset = TRUE;
constexpr BOOL kInitiallySet = FALSE;
constexpr BOOL kAnyOne = FALSE;
// INFINITE itself means no limit: a finite wait stops one millisecond short.
constexpr DWORD kLongestFiniteWait = INFINITE - 1;

// Wait time-outs run on the system timer, about 15.6 ms a tick unless a
// process asks for finer, so the link's 5 ms read wait would last a tick.
constexpr UINT kTimerResolutionMs = 1;

// Raised for the rest of the run, and ended at exit as timeBeginPeriod asks
// ("can improve the accuracy of time-out intervals in wait functions").
class FineTimerResolution {
 public:
  FineTimerResolution() : raised_(timeBeginPeriod(kTimerResolutionMs) == TIMERR_NOERROR) {}
  ~FineTimerResolution() {
    if (raised_) timeEndPeriod(kTimerResolutionMs);
  }
  FineTimerResolution(const FineTimerResolution&) = delete;
  FineTimerResolution& operator=(const FineTimerResolution&) = delete;

 private:
  const bool raised_;
};

// On the first timed wait of the run.
void UseFineTimerResolution() { static const FineTimerResolution resolution; }

HANDLE HandleOf(const Event& event) { return static_cast<HANDLE>(event.NativeHandle()); }

DWORD ToWaitMilliseconds(std::chrono::milliseconds timeout) {
  if (timeout.count() <= 0) return 0;
  if (timeout.count() >= static_cast<long long>(kLongestFiniteWait)) return kLongestFiniteWait;
  return static_cast<DWORD>(timeout.count());
}

}  // namespace

Event::Event() : handle_(CreateEventA(nullptr, kManualReset, kInitiallySet, nullptr)) {}

Event::~Event() {
  if (handle_ != nullptr) CloseHandle(HandleOf(*this));
}

void Event::Set() {
  if (handle_ != nullptr) SetEvent(HandleOf(*this));
}

void Event::Reset() {
  if (handle_ != nullptr) ResetEvent(HandleOf(*this));
}

bool Event::IsSet() const { return handle_ != nullptr && WaitForSingleObject(HandleOf(*this), 0) == WAIT_OBJECT_0; }

bool Event::WaitFor(std::chrono::milliseconds timeout) const {
  UseFineTimerResolution();
  return handle_ != nullptr && WaitForSingleObject(HandleOf(*this), ToWaitMilliseconds(timeout)) == WAIT_OBJECT_0;
}

void Event::Wait() const {
  if (handle_ != nullptr) WaitForSingleObject(HandleOf(*this), INFINITE);
}

int WaitAny(std::initializer_list<const Event*> events, std::chrono::milliseconds timeout) {
  UseFineTimerResolution();
  // Null entries are left out of the system's list; positions map back to
  // the caller's, in the same order, so the first listed still wins.
  std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> handles{};
  std::array<int, MAXIMUM_WAIT_OBJECTS> positions{};
  DWORD count = 0;
  int position = 0;
  for (const Event* event : events) {
    if (event != nullptr) {
      if (count == handles.size() || event->NativeHandle() == nullptr) return kWaitFailed;
      handles[count] = HandleOf(*event);
      positions[count] = position;
      ++count;
    }
    ++position;
  }
  if (count == 0) {
    Sleep(ToWaitMilliseconds(timeout));
    return kWaitTimedOut;
  }
  const DWORD woke = WaitForMultipleObjects(count, handles.data(), kAnyOne, ToWaitMilliseconds(timeout));
  if (woke == WAIT_TIMEOUT) return kWaitTimedOut;
  if (woke >= WAIT_OBJECT_0 && woke < WAIT_OBJECT_0 + count) return positions[woke - WAIT_OBJECT_0];
  return kWaitFailed;
}

}  // namespace ferrolt::platform
