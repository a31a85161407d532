// Reporting through the three callbacks: reporters that do nothing, handed
// to a worker whose caller gave none, and the log line of a plain text.
#pragma once

#include <string_view>

#include "link/Callbacks.h"

namespace ferrolt {

IProgressChangeCallBack& ProgressOrSilent(IProgressChangeCallBack* progress);
ILogMessageCallBack& LogOrSilent(ILogMessageCallBack* log);
IVersionInfoReadyCallBack& VersionOrSilent(IVersionInfoReadyCallBack* version);

// A log message without arguments that shows text as it stands, a path or
// device text included: the log reporter formats a message twice, so each
// '%' goes in as four.
void LogText(ILogMessageCallBack& log, std::string_view text);

}  // namespace ferrolt
