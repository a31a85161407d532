// The console control handler: Ctrl+Break asks the device administration to
// cancel the running operation; every other console event ends the process
// with exit status 1. On Windows it is installed with SetConsoleCtrlHandler;
// on POSIX, Ctrl+Break is SIGQUIT (Ctrl+\) and the other events are SIGINT,
// SIGTERM and SIGHUP.
#pragma once

namespace ferrolt {

// The exit status of a run ended by a console event other than Ctrl+Break.
inline constexpr int kControlEventExitStatus = 1;

// Must run on the main thread before any other thread starts, so that every
// thread inherits it (on POSIX: blocks the control signals). Safe to repeat.
void PrepareControlHandler();

// Prepares, then starts handling the events. False when the handler could
// not be installed.
bool InstallControlHandler();

}  // namespace ferrolt
