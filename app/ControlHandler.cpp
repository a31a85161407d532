#include "app/ControlHandler.h"

#include <cstdio>
#include <cstdlib>

#include "app/ConsoleReporters.h"
#include "app/GlobalDeviceAdmin.h"
#include "link/ConsoleSink.h"
#include "platform/ConsoleSignals.h"

namespace ferrolt {

namespace {

// The run ends on the thread the event came on (on Windows one the system
// made for it), with what was printed flushed first. The cancel waits for
// the worker; the platform runs a Break where that wait holds up no later
// event.
void HandleControlEvent(platform::ConsoleEvent event) {
  if (event != platform::ConsoleEvent::Break) {
    SettleStandardConsole();
    std::exit(kControlEventExitStatus);
  }
  std::fputs("\nCancel operation has been requested.\n", stdout);
  std::fflush(stdout);
  CLogMessageCallback log;
  GlobalDeviceAdmin().CancelOperation(&log);
}

}  // namespace

bool InstallControlHandler() { return platform::HandleConsoleSignals(HandleControlEvent); }

}  // namespace ferrolt
