#include "app/ConsoleReporters.h"

#include <cstdarg>
#include <cstdio>

namespace ferrolt {

namespace {

// The second pass: "%%" prints as one '%'; anything else prints unchanged.
void PrintWithoutArguments(const char* text) {
  for (const char* at = text; *at != '\0'; ++at) {
    std::fputc(*at, stdout);
    if (at[0] == '%' && at[1] == '%') ++at;
  }
}

}  // namespace

void CProgressCallback::ProgressChangeCallBack(int percent) {
  std::printf("ProgressChangeCallBack:\t%d percent completed\n", percent);
}

void CLogMessageCallback::LogMessageCallBack(std::string format, ...) {
  std::fputs("LogMessageCallBack:\t", stdout);
  char message[kLogMessageBufferSize] = {};
  va_list arguments;
  va_start(arguments, format);
  // vsnprintf cuts a longer message at kLogMessageBufferSize - 1 characters.
  std::vsnprintf(message, sizeof message, format.c_str(), arguments);
  va_end(arguments);
  PrintWithoutArguments(message);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void CVersionInfoReadyCallBack::VersionInfoReadyCallBack(std::string version) {
  std::printf("VersionInfoReadyCallBack:\t%s\n", version.c_str());
  std::fflush(stdout);
}

}  // namespace ferrolt
