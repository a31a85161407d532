// The console's side of the three callback interfaces: one line on standard
// output per report, behind a prefix that names the report. They hold no
// state, so one can be made wherever it is needed.
#pragma once

#include <string>

#include "link/Callbacks.h"

namespace ferrolt {

class CProgressCallback : public IProgressChangeCallBack {
 public:
  void ProgressChangeCallBack(int percent) override;
};

// The text FormatLogMessage makes of it, one line.
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
