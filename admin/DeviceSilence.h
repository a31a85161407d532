// The one log line of an operation that ends because the device has sent
// nothing for limits::kDeviceSilenceLimit.
#pragma once

#include <chrono>

#include "link/Callbacks.h"
#include "link/Limits.h"

namespace ferrolt {

inline void ReportDeviceSilence(ILogMessageCallBack* log) {
  if (log == nullptr) return;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limits::kDeviceSilenceLimit);
  log->LogMessageCallBack("Error: The device sent nothing for %d seconds. Giving up.",
                          static_cast<int>(seconds.count()));
}

}  // namespace ferrolt
