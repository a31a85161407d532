// Reporting through the three callbacks: reporters that do nothing, handed
// to a worker whose caller gave none, and the log line of a plain text.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

#include "link/Callbacks.h"

namespace ferrolt {

IProgressChangeCallBack& ProgressOrSilent(IProgressChangeCallBack* progress);
ILogMessageCallBack& LogOrSilent(ILogMessageCallBack* log);
IVersionInfoReadyCallBack& VersionOrSilent(IVersionInfoReadyCallBack* version);

// A log message is formatted into this many bytes (1023 characters and a zero).
inline constexpr size_t kLogMessageBufferSize = 1024;

// The text of a log message, as every log reporter shows it: formatted with
// its arguments (cut at kLogMessageBufferSize - 1 characters), then a pass
// without arguments in which "%%" shows as "%". Any other '%' in the
// formatted text (device text included) stays as it stands, so no text ever
// acts as a format.
std::string FormatLogMessage(const char* format, std::va_list arguments);

// A log message without arguments that shows text as it stands, a path or
// device text included: the log reporter formats a message twice, so each
// '%' goes in as four.
void LogText(ILogMessageCallBack& log, std::string_view text);

}  // namespace ferrolt
