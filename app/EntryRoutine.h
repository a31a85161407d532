// The tool's entry routine: one command per run.
#pragma once

namespace ferrolt {

// Installs the control handler, dispatches the command line, launches at
// most what the CLI-mode rule allows, waits for the operation and the end
// wait. Returns the exit status: 0, or with FERROLT_EXIT_STATUS=1 what the
// run reached (app/ExitStatus.h).
int RunFerrolt(int argc, char** argv);

}  // namespace ferrolt
