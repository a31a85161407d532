// Shared by the front end's end-to-end tests: the texts the tool prints on
// its own and the time bounds that tell an end wait from an immediate end.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/ClockSlack.h"
#include "tests/support/EndToEnd.h"

namespace ferrolt::test {

inline constexpr const char* kUnrecognised =
    "\nNot a valid registered command!\nType -h for a list of valid commands.\n";
inline constexpr const char* kRefusedInCli = "You are in CLI Mode. Please use stopcli command first.\n";
inline constexpr const char* kRefusedOutsideCli = "You are not in CLI Mode. Please use startcli command first.\n";
inline constexpr const char* kBusyLine =
    "LogMessageCallBack:\tError: Another operation is already running now. Please wait the current operation or "
    "cancel to start new operation.\n";
inline constexpr const char* kCancelRequested = "\nCancel operation has been requested.\n";
inline constexpr const char* kCancelSucceeded = "Cancel Operation has succeeded.\n";
inline constexpr const char* kCanceledLine = "LogMessageCallBack:\tOperation has been Canceled\n";

// The end wait lasts 3 s: a run that waits it out takes at least nearly all
// of it, and a run that ends at once (even slowed by a sanitizer) ends sooner.
inline constexpr milliseconds kEndWaitAtLeast = AtLeast(milliseconds{2800});
inline constexpr milliseconds kAtOnce{2800};
// Ctrl+C ends the run after a teardown of at most 1 s, and a margin.
inline constexpr milliseconds kPromptExit{4000};
inline constexpr milliseconds kRunLimit{20000};

}  // namespace ferrolt::test
