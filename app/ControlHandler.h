// The console control handler: Ctrl+Break asks the device administration to
// cancel the running operation; every other console event ends the process
// with exit status 1.
#pragma once

namespace ferrolt {

// The exit status of a run ended by a console event other than Ctrl+Break.
inline constexpr int kControlEventExitStatus = 1;

// Starts handling the console events. False when the handler could not be
// installed.
bool InstallControlHandler();

}  // namespace ferrolt
