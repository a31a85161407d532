// Hints: what the user can do about a failure that the console lines only
// name. The command-line tool prints them on standard error; a program's
// device takes them as notes of its own. Each hint is given at most once a
// run, however often its cause comes back (the link retries its open, a
// CLI-mode file repeats its line).
#pragma once

#include <atomic>
#include <cstdarg>
#include <string>
#include <string_view>

#include "platform/FormatAttribute.h"

namespace ferrolt::platform {

// Where hints go.
class HintSink {
 public:
  // One hint, without a prefix, ending with its own newline (a hint of
  // several lines holds them all).
  virtual void Take(std::string_view text) = 0;

 protected:
  ~HintSink() = default;
};

// "ferrolt: " and the text on standard error: the command-line tool's.
HintSink& StandardErrorHints();
// Takes every hint and shows none.
HintSink& SilentHints();

// Printf-style into a string, however long.
std::string FormatText(const char* format, std::va_list arguments);

class Hint {
 public:
  // True the first time only: for a hint that picks its text afterwards.
  bool First() { return !given_.exchange(true); }
  // The first time only, the formatted text (which ends with its own
  // newline) to sink.
  void Print(HintSink& sink, const char* format, ...) FERROLT_PRINTF(3);

 private:
  std::atomic<bool> given_{false};
};

// The formatted text to sink, each time.
void PrintHintText(HintSink& sink, const char* format, ...) FERROLT_PRINTF(2);

}  // namespace ferrolt::platform
