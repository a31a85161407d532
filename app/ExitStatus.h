// The exit status a script can trust, opt-in: with FERROLT_EXIT_STATUS=1 a
// run that did not do its work ends with a status that says why; without
// it every run ends with 0, as the tool always has (1 stays the status of a
// run ended by Ctrl+C and the like).
#pragma once

#include "transfer/OperationOutcome.h"

namespace ferrolt {

// The statuses, as the README and the man page list them.
inline constexpr int kStatusDone = 0;
inline constexpr int kStatusUsage = 2;
inline constexpr int kStatusDeviceNotFound = 3;
inline constexpr int kStatusRefused = 4;
inline constexpr int kStatusFailed = 5;
inline constexpr int kStatusIncomplete = 6;
inline constexpr int kStatusCancelled = 7;

inline constexpr const char* kExitStatusVariable = "FERROLT_EXIT_STATUS";

// True when the user asked for the statuses above.
bool ExitStatusWanted();

int ExitStatusOf(Outcome outcome);

}  // namespace ferrolt
