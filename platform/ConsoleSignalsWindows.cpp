#include <windows.h>

#include <atomic>

#include "platform/ConsoleSignals.h"

namespace ferrolt::platform {

namespace {

constexpr BOOL kAdd = TRUE;

std::atomic<ConsoleEventHandler> installedHandler{nullptr};

// Windows calls this on a thread it creates for each event, so a handler that
// waits holds up neither the main thread nor the next event.
BOOL WINAPI HandleControlEvent(DWORD event) {
  installedHandler.load()(event == CTRL_BREAK_EVENT ? ConsoleEvent::Break : ConsoleEvent::Other);
  return TRUE;
}

}  // namespace

// Nothing to prepare: console events never interrupt the threads that run.
void PrepareConsoleSignals() {}

bool HandleConsoleSignals(ConsoleEventHandler handler) {
  installedHandler.store(handler);
  return SetConsoleCtrlHandler(HandleControlEvent, kAdd) != FALSE;
}

}  // namespace ferrolt::platform
