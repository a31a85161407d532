#include <windows.h>

#include <cstdio>
#include <cstdlib>

#include "app/ConsoleReporters.h"
#include "app/ControlHandler.h"
#include "app/GlobalDeviceAdmin.h"

namespace ferrolt {

namespace {

constexpr BOOL kAdd = TRUE;

// Windows calls this on a thread it creates for each event, so a cancel that
// waits for the worker holds up neither the main thread nor the next event.
BOOL WINAPI HandleControlEvent(DWORD event) {
  if (event != CTRL_BREAK_EVENT) std::exit(kControlEventExitStatus);
  std::fputs("\nCancel operation has been requested.\n", stdout);
  std::fflush(stdout);
  CLogMessageCallback log;
  GlobalDeviceAdmin().CancelOperation(&log);
  return TRUE;
}

}  // namespace

// Nothing to prepare: console events never interrupt the threads that run.
void PrepareControlHandler() {}

bool InstallControlHandler() { return SetConsoleCtrlHandler(HandleControlEvent, kAdd) != FALSE; }

}  // namespace ferrolt
