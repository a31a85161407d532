#include "platform/winusb/SetupHints.h"

#include <atomic>
#include <cstdio>

namespace ferrolt::platform {
namespace {

std::atomic<bool> openHinted{false};
std::atomic<bool> driverHinted{false};

bool FirstTime(std::atomic<bool>& hinted) { return !hinted.exchange(true); }

}  // namespace

void HintOpenFailure(DWORD error) {
  if (!FirstTime(openHinted)) return;
  if (error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION) {
    std::fprintf(stderr,
                 "ferrolt: the device is open in another program (another ferrolt?); end that program and try "
                 "again.\n");
    return;
  }
  std::fprintf(stderr, "ferrolt: cannot open the device's interface (Windows error %lu).\n",
               static_cast<unsigned long>(error));
}

void HintDriverFailure(DWORD error) {
  if (!FirstTime(driverHinted)) return;
  std::fprintf(stderr,
               "ferrolt: WinUSB does not drive the device's interface 4 (Windows error %lu). Bind that interface "
               "to the WinUSB driver (Device Manager, Update driver, or the device's INF), then replug it.\n",
               static_cast<unsigned long>(error));
}

}  // namespace ferrolt::platform
