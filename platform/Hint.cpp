#include "platform/Hint.h"

#include <cstdio>
#include <vector>

namespace ferrolt::platform {
namespace {

constexpr const char* kHintPrefix = "ferrolt: ";
// Enough for most texts; longer ones take the heap.
constexpr size_t kTextBufferSize = 256;

class StandardError final : public HintSink {
 public:
  // Standard output may hold lines not flushed yet: where both streams go
  // to one file, the hint follows them.
  void Take(std::string_view text) override {
    std::fflush(stdout);
    std::fprintf(stderr, "%s%.*s", kHintPrefix, static_cast<int>(text.size()), text.data());
    std::fflush(stderr);
  }
};

class Silent final : public HintSink {
 public:
  void Take(std::string_view) override {}
};

}  // namespace

HintSink& StandardErrorHints() {
  static StandardError sink;
  return sink;
}

HintSink& SilentHints() {
  static Silent sink;
  return sink;
}

std::string FormatText(const char* format, std::va_list arguments) {
  char text[kTextBufferSize];
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  if (length < 0) {
    va_end(again);
    return {};
  }
  if (static_cast<size_t>(length) < sizeof text) {
    va_end(again);
    return std::string(text, static_cast<size_t>(length));
  }
  std::vector<char> longer(static_cast<size_t>(length) + 1);
  std::vsnprintf(longer.data(), longer.size(), format, again);
  va_end(again);
  return std::string(longer.data(), static_cast<size_t>(length));
}

void Hint::Print(HintSink& sink, const char* format, ...) {
  if (!First()) return;
  std::va_list arguments;
  va_start(arguments, format);
  sink.Take(FormatText(format, arguments));
  va_end(arguments);
}

void PrintHintText(HintSink& sink, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  sink.Take(FormatText(format, arguments));
  va_end(arguments);
}

}  // namespace ferrolt::platform
