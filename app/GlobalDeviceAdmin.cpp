#include "app/GlobalDeviceAdmin.h"

#include "link/ConsoleSink.h"
#include "link/Limits.h"
#include "platform/ConsoleSignals.h"

namespace ferrolt {

namespace {

DeviceAdmin* CreateGlobalDeviceAdmin() {
  // A backend may start threads of its own; they must inherit the blocked
  // control signals, or a Ctrl+C could kill the process on one of them.
  platform::PrepareConsoleSignals();
  return new DeviceAdmin(platform::CreateDefaultBackend());
}

// Never deleted: a detached worker may still be running at exit, and
// deleting the object would free what it uses.
DeviceAdmin* const globalAdmin = CreateGlobalDeviceAdmin();

// At exit, close the link under any task still running and wait for the
// tasks a bounded time, with what was printed shown first.
struct ExitHook {
  ~ExitHook() {
    SettleStandardConsole();
    globalAdmin->Shutdown(limits::kTeardownWait);
  }
};
ExitHook exitHook;

}  // namespace

DeviceAdmin& GlobalDeviceAdmin() { return *globalAdmin; }

}  // namespace ferrolt
