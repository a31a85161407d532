#include "app/ConsoleReporters.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace ferrolt {

namespace {

constexpr const char* kLogPrefix = "LogMessageCallBack:\t";

// The second pass: "%%" prints as one '%'; anything else prints unchanged.
void AppendWithoutArguments(const char* text, std::string& line) {
  for (const char* at = text; *at != '\0'; ++at) {
    line += *at;
    if (at[0] == '%' && at[1] == '%') ++at;
  }
}

}  // namespace

void CProgressCallback::ProgressChangeCallBack(int percent) {
  std::printf("ProgressChangeCallBack:\t%d percent completed\n", percent);
}

void CLogMessageCallback::LogMessageCallBack(std::string format, ...) {
  char message[kLogMessageBufferSize] = {};
  va_list arguments;
  va_start(arguments, format);
  // vsnprintf cuts a longer message at kLogMessageBufferSize - 1 characters.
  std::vsnprintf(message, sizeof message, format.c_str(), arguments);
  va_end(arguments);
  // One write for the whole line, so lines the worker and the reader print
  // at the same moment never cut into each other.
  std::string line(kLogPrefix);
  AppendWithoutArguments(message, line);
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

void CVersionInfoReadyCallBack::VersionInfoReadyCallBack(std::string version) {
  std::printf("VersionInfoReadyCallBack:\t%s\n", version.c_str());
  std::fflush(stdout);
}

}  // namespace ferrolt
