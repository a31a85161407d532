#include "app/ConsoleReporters.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "link/ConsoleSink.h"
#include "link/Reporting.h"

namespace ferrolt {

namespace {

constexpr const char* kLogPrefix = "LogMessageCallBack:\t";

}  // namespace

void CProgressCallback::ProgressChangeCallBack(int percent) {
  ConsoleSink& console = StandardConsole();
  console.PrintFormatted("ProgressChangeCallBack:\t%d percent completed\n", percent);
  console.Flush();
}

void CLogMessageCallback::LogMessageCallBack(std::string format, ...) {
  va_list arguments;
  va_start(arguments, format);
  // One write for the whole line, so lines the worker and the reader print
  // at the same moment never cut into each other.
  std::string line = kLogPrefix + FormatLogMessage(format.c_str(), arguments) + '\n';
  va_end(arguments);
  ConsoleSink& console = StandardConsole();
  console.Print(line);
  console.Flush();
}

void CVersionInfoReadyCallBack::VersionInfoReadyCallBack(std::string version) {
  std::printf("VersionInfoReadyCallBack:\t%s\n", version.c_str());
  std::fflush(stdout);
}

}  // namespace ferrolt
