// The exit status a script can trust, opt-in: with FERROLT_EXIT_STATUS=1 a
// run that did not do its work ends with a status that says why; without
// it every run ends with 0, as the tool always has (1 stays the status of a
// run ended by Ctrl+C and the like).
#pragma once

#include "transfer/OperationOutcome.h"

namespace ferrolt {

// The statuses (kStatusDone and the others) and ExitStatusOf are the
// outcome's own, shared with the library.
inline constexpr const char* kExitStatusVariable = "FERROLT_EXIT_STATUS";

// True when the user asked for the statuses above.
bool ExitStatusWanted();

}  // namespace ferrolt
