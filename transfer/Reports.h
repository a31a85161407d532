// Small reporting helpers the file transfers share: a progress report to a
// callback that may be absent, and a log line whose text is passed as an
// argument, so a path or device text holding a '%' is never read as a format.
#pragma once

#include <cstdio>
#include <string>

#include "link/Callbacks.h"

namespace ferrolt {

// The progress an operation reports when it has finished its work.
inline constexpr int kProgressDone = 100;

inline void ReportProgress(IProgressChangeCallBack* progress, int percent) {
  if (progress != nullptr) progress->ProgressChangeCallBack(percent);
}

inline void LogText(ILogMessageCallBack* log, const std::string& text) {
  if (log != nullptr) log->LogMessageCallBack("%s", text.c_str());
}

}  // namespace ferrolt
