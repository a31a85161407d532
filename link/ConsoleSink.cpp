#include "link/ConsoleSink.h"

#include <cstdarg>
#include <cstdio>

#include "platform/Hint.h"

namespace ferrolt {

namespace {

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
  va_list arguments;
  va_start(arguments, format);
  Print(platform::FormatText(format, arguments));
  va_end(arguments);
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
