#include "link/ConsoleSink.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "link/DeferredFlush.h"
#include "link/Limits.h"
#include "platform/Hint.h"
#include "platform/StandardOutput.h"

namespace ferrolt {

namespace {

void FlushStandardOutput() { std::fflush(stdout); }

// Standard output to a terminal is flushed line by line, for whoever watches
// it; to a file or a pipe within limits::kOutputFlushPeriod of a line.
class StandardStreams final : public ConsoleSink {
 public:
  StandardStreams()
      : toTerminal_(platform::StandardOutputIsTerminal()), deferred_(FlushStandardOutput, limits::kOutputFlushPeriod) {}

  void Print(std::string_view text) override { std::fwrite(text.data(), 1, text.size(), stdout); }
  void Flush() override {
    if (toTerminal_)
      FlushStandardOutput();
    else
      deferred_.Request();
  }
  // Standard output first: where both streams go to one file, a note
  // follows the lines printed before it.
  void Note(std::string_view line) override {
    FlushStandardOutput();
    std::fprintf(stderr, "ferrolt: %.*s\n", static_cast<int>(line.size()), line.data());
    std::fflush(stderr);
  }
  // From here on every line is flushed at once.
  void Settle() { deferred_.Stop(); }

 private:
  const bool toTerminal_;
  DeferredFlush deferred_;
};

StandardStreams& Streams() {
  // Never destroyed, as a task still running at exit may print. Settled at
  // exit (and sooner by whoever ends the run): the C library's last flush
  // comes after the exit handlers, and must not meet a flush of the thread's.
  static StandardStreams* const streams = [] {
    auto* made = new StandardStreams;
    std::atexit(SettleStandardConsole);
    return made;
  }();
  return *streams;
}

class Silent final : public ConsoleSink {
 public:
  void Print(std::string_view) override {}
  void Flush() override {}
  void Note(std::string_view) override {}
};

}  // namespace

void ConsoleSink::PrintFormatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Print(platform::FormatText(format, arguments));
  va_end(arguments);
}

ConsoleSink& StandardConsole() { return Streams(); }

void SettleStandardConsole() { Streams().Settle(); }

ConsoleSink& SilentConsole() {
  static Silent console;
  return console;
}

}  // namespace ferrolt
