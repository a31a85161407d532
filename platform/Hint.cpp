#include "platform/Hint.h"

#include <cstdarg>
#include <cstdio>

namespace ferrolt::platform {
namespace {

constexpr const char* kHintPrefix = "ferrolt: ";

void PrintPrefixed(const char* format, std::va_list arguments) {
  std::fputs(kHintPrefix, stderr);
  std::vfprintf(stderr, format, arguments);
  std::fflush(stderr);
}

}  // namespace

void Hint::Print(const char* format, ...) {
  if (!First()) return;
  std::va_list arguments;
  va_start(arguments, format);
  PrintPrefixed(format, arguments);
  va_end(arguments);
}

void PrintHintText(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  PrintPrefixed(format, arguments);
  va_end(arguments);
}

}  // namespace ferrolt::platform
