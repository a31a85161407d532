#include "link/ConsoleSink.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

namespace ferrolt {

namespace {

// Enough for every console line the workers print; longer ones take the heap.
constexpr size_t kLineBufferSize = 256;

class StandardStreams final : public ConsoleSink {
 public:
  void Print(std::string_view text) override { std::fwrite(text.data(), 1, text.size(), stdout); }
  void Flush() override { std::fflush(stdout); }
  void Note(std::string_view line) override {
    std::fprintf(stderr, "ferrolt: %.*s\n", static_cast<int>(line.size()), line.data());
    std::fflush(stderr);
  }
};

class Silent final : public ConsoleSink {
 public:
  void Print(std::string_view) override {}
  void Flush() override {}
  void Note(std::string_view) override {}
};

}  // namespace

void ConsoleSink::PrintFormatted(const char* format, ...) {
  char line[kLineBufferSize];
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (length < 0) {
    va_end(again);
    return;
  }
  if (static_cast<size_t>(length) < sizeof line) {
    va_end(again);
    Print(std::string_view(line, static_cast<size_t>(length)));
    return;
  }
  std::vector<char> longer(static_cast<size_t>(length) + 1);
  std::vsnprintf(longer.data(), longer.size(), format, again);
  va_end(again);
  Print(std::string_view(longer.data(), static_cast<size_t>(length)));
}

ConsoleSink& StandardConsole() {
  static StandardStreams console;
  return console;
}

ConsoleSink& SilentConsole() {
  static Silent console;
  return console;
}

}  // namespace ferrolt
