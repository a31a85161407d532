// How an operation ended, as a script wants to know it: what its worker
// reached, gathered while it runs, and read once it has ended. Only the
// opt-in exit status uses it; the console says the same in words.
#pragma once

#include <atomic>

namespace ferrolt {

enum class Outcome : int {
  Done,
  DeviceNotFound,  // the link could not be opened
  Refused,         // not started: another operation ran, or the CLI-mode rule said no
  Failed,          // the exchange did not reach its end
  Incomplete,      // a file that arrived, or went, other than whole
  Cancelled,
};

// The number of each outcome: the tool's opt-in exit status, and the
// library's status, as the README and the man page list them.
inline constexpr int kStatusDone = 0;
inline constexpr int kStatusUsage = 2;
inline constexpr int kStatusDeviceNotFound = 3;
inline constexpr int kStatusRefused = 4;
inline constexpr int kStatusFailed = 5;
inline constexpr int kStatusIncomplete = 6;
inline constexpr int kStatusCancelled = 7;

constexpr int ExitStatusOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::Done:
      return kStatusDone;
    case Outcome::DeviceNotFound:
      return kStatusDeviceNotFound;
    case Outcome::Refused:
      return kStatusRefused;
    case Outcome::Incomplete:
      return kStatusIncomplete;
    case Outcome::Cancelled:
      return kStatusCancelled;
    case Outcome::Failed:
      break;
  }
  return kStatusFailed;
}

class OperationOutcome {
 public:
  void Reset() {
    done_ = false;
    linkFailed_ = false;
    incomplete_ = false;
    cancelled_ = false;
  }
  // The worker reached its normal end.
  void MarkDone() { done_ = true; }
  void MarkLinkFailed() { linkFailed_ = true; }
  void MarkIncomplete() { incomplete_ = true; }
  void MarkCancelled() { cancelled_ = true; }

  Outcome Result() const {
    if (cancelled_) return Outcome::Cancelled;
    if (incomplete_) return Outcome::Incomplete;
    if (done_) return Outcome::Done;
    return linkFailed_ ? Outcome::DeviceNotFound : Outcome::Failed;
  }

 private:
  std::atomic<bool> done_{false};
  std::atomic<bool> linkFailed_{false};
  std::atomic<bool> incomplete_{false};
  std::atomic<bool> cancelled_{false};
};

}  // namespace ferrolt
