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
