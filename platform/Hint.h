// Hints on standard error: what the user can do about a failure that the
// console lines only name. Each hint is printed at most once a run, however
// often its cause comes back (the link retries its open, a CLI-mode file
// repeats its line).
#pragma once

#include <atomic>

#include "platform/FormatAttribute.h"

namespace ferrolt::platform {

class Hint {
 public:
  // True the first time only: for a hint that picks its text afterwards.
  bool First() { return !given_.exchange(true); }
  // The first time only, "ferrolt: " and the formatted text (which ends with
  // its own newline) on standard error.
  void Print(const char* format, ...) FERROLT_PRINTF(2);

 private:
  std::atomic<bool> given_{false};
};

// "ferrolt: " and the formatted text on standard error, each time.
void PrintHintText(const char* format, ...) FERROLT_PRINTF(1);

}  // namespace ferrolt::platform
