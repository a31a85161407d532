// The console's side of the three callback interfaces: one line on standard
// output per report, behind a prefix that names the report. They hold no
// state, so one can be made wherever it is needed.
#pragma once

#include <cstddef>
#include <string>

#include "link/Callbacks.h"

namespace ferrolt {

// A log message is formatted into this many bytes (1023 characters and a zero).
inline constexpr size_t kLogMessageBufferSize = 1024;

class CProgressCallback : public IProgressChangeCallBack {
 public:
  void ProgressChangeCallBack(int percent) override;
};

// Formats twice: once with the arguments, then a pass without arguments in
// which "%%" shows as "%". Any other '%' in the formatted text (device text
// included) prints as it stands, so no text ever acts as a format.
class CLogMessageCallback : public ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string format, ...) override;
};

class CVersionInfoReadyCallBack : public IVersionInfoReadyCallBack {
 public:
  void VersionInfoReadyCallBack(std::string version) override;
};

// The three reporters the entry routine hands to every entry point.
struct ConsoleReporters {
  CLogMessageCallback log;
  CProgressCallback progress;
  CVersionInfoReadyCallBack version;
};

}  // namespace ferrolt
