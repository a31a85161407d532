#include "link/Reporting.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace ferrolt {

namespace {

class SilentProgress final : public IProgressChangeCallBack {
 public:
  void ProgressChangeCallBack(int) override {}
};

class SilentLog final : public ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string, ...) override {}
};

class SilentVersion final : public IVersionInfoReadyCallBack {
 public:
  void VersionInfoReadyCallBack(std::string) override {}
};

// '%' as a format shows it.
constexpr std::string_view kPercentEscaped = "%%";
// '%' survives two printf passes as four.
constexpr std::string_view kPercentTwiceEscaped = "%%%%";

}  // namespace

std::string FormatLogMessage(const char* format, std::va_list arguments) {
  // A message without a conversion is its own text: a download logs one per
  // block, and the formatting pass would cost more than the rest of its line.
  if (std::strchr(format, '%') == nullptr)
    return std::string(format, std::min(std::strlen(format), kLogMessageBufferSize - 1));
  char message[kLogMessageBufferSize];
  std::vsnprintf(message, sizeof message, format, arguments);
  std::string line(message);
  for (size_t at = line.find(kPercentEscaped); at != std::string::npos; at = line.find(kPercentEscaped, at + 1))
    line.erase(at, 1);
  return line;
}

IProgressChangeCallBack& ProgressOrSilent(IProgressChangeCallBack* progress) {
  static SilentProgress silent;
  return progress != nullptr ? *progress : silent;
}

ILogMessageCallBack& LogOrSilent(ILogMessageCallBack* log) {
  static SilentLog silent;
  return log != nullptr ? *log : silent;
}

IVersionInfoReadyCallBack& VersionOrSilent(IVersionInfoReadyCallBack* version) {
  static SilentVersion silent;
  return version != nullptr ? *version : silent;
}

void LogText(ILogMessageCallBack& log, std::string_view text) {
  std::string format;
  format.reserve(text.size());
  for (char c : text) {
    if (c == '%')
      format += kPercentTwiceEscaped;
    else
      format += c;
  }
  log.LogMessageCallBack(format);
}

}  // namespace ferrolt
