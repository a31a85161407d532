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
      : toTerminal_(platform::StandardOutputIsTerminal()),
        deferred_(FlushStandardOutput, limits::kOutputFlushPeriod) {}

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
  // At exit the flushes happen at once: the C library's last flush of the
  // streams comes after the exit handlers, and a task still ending may print.
  void StopDeferring() { deferred_.Stop(); }

 private:
  const bool toTerminal_;
  DeferredFlush deferred_;
};

StandardStreams& Streams() {
  // Never destroyed, as a task still running at exit may print.
  static StandardStreams* const streams = [] {
    auto* made = new StandardStreams;
    std::atexit([] { Streams().StopDeferring(); });
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

ConsoleSink& SilentConsole() {
  static Silent console;
  return console;
}

}  // namespace ferrolt
