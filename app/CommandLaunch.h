// One launch of a dispatched command: the lines it prints first, then the
// one DeviceAdmin entry point it calls.
#pragma once

#include "admin/DeviceAdmin.h"
#include "app/CommandDispatch.h"
#include "app/ConsoleReporters.h"

namespace ferrolt {

// ortString: the run's ORT string buffer, alive until the run ends (the
// worker reads it in place). True when an operation started; a refusal has
// reported itself through the log reporter.
bool LaunchCommand(const Command& command, DeviceAdmin& admin, ConsoleReporters& reporters, char* ortString);

// The line of a command that ends the run without a launch: the help, a
// command not recognised, an ORT string that is wrong or too long.
void PrintImmediateAnswer(const Command& command, ConsoleReporters& reporters);

}  // namespace ferrolt
