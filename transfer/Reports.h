// Small reporting helpers the file transfers share: a progress report to a
// callback that may be absent, and a log line whose text is passed as an
// argument, so a path or device text holding a '%' is never read as a format.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "link/Callbacks.h"

namespace ferrolt {

inline void ReportProgress(IProgressChangeCallBack* progress, int percent) {
  if (progress != nullptr) progress->ProgressChangeCallBack(percent);
}

// A download whose data packets disagree with the count the device announced
// is kept, marked incomplete on standard error.
inline void ReportShortDownload(int32_t written, int32_t total, const std::string& path) {
  if (total > 0 && written != total) {
    std::fprintf(stderr, "ferrolt: %d of %d data packets arrived; %s is incomplete.\n", static_cast<int>(written),
                 static_cast<int>(total), path.c_str());
  }
}

inline void LogText(ILogMessageCallBack* log, const std::string& text) {
  if (log != nullptr) log->LogMessageCallBack("%s", text.c_str());
}

}  // namespace ferrolt
