// The console's control events as the system delivers them. On Windows they
// come through SetConsoleCtrlHandler; on POSIX, Ctrl+Break is SIGQUIT
// (Ctrl+\) and every other event is SIGINT, SIGTERM or SIGHUP, taken by
// sigwait on a thread of their own.
#pragma once

namespace ferrolt::platform {

enum class ConsoleEvent { Break, Other };

// Runs once per event. A Break's call may wait (for a cancel to finish): it
// runs where a later event is still heard meanwhile.
using ConsoleEventHandler = void (*)(ConsoleEvent event);

// Must run on the main thread before any other thread starts, so that every
// thread inherits it (on POSIX: blocks the control signals). Safe to repeat.
void PrepareConsoleSignals();

// Prepares, then hands every console event to handler. False when the
// system would not take the handler.
bool HandleConsoleSignals(ConsoleEventHandler handler);

}  // namespace ferrolt::platform
