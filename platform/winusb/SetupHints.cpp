#include "platform/winusb/SetupHints.h"

#include "platform/Hint.h"

namespace ferrolt::platform {
namespace {

Hint openHint;
Hint driverHint;
Hint notFoundHint;

}  // namespace

void HintOpenFailure(HintSink& hints, DWORD error) {
  if (!openHint.First()) return;
  if (error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION) {
    PrintHintText(hints, "the device is open in another program (another ferrolt?); end that program and try again.\n");
    return;
  }
  PrintHintText(hints, "cannot open the device's interface (Windows error %lu).\n", static_cast<unsigned long>(error));
}

void HintDriverFailure(HintSink& hints, DWORD error) {
  driverHint.Print(
      hints,
      "WinUSB does not drive the device's interface 4 (Windows error %lu). Bind that interface to the WinUSB driver "
      "(Device Manager, Update driver, or the device's INF), then replug it.\n",
      static_cast<unsigned long>(error));
}

void HintNoDevice(HintSink& hints, const UsbInterfaceId& wanted) {
  notFoundHint.Print(
      hints,
      "no USB device VID_%04X&PID_%04X with interface %d (MI_%02X) bound to WinUSB was found. In Device Manager, "
      "the device's interface %d shows under \"Universal Serial Bus devices\" once WinUSB drives it; under \"Other "
      "devices\" it has no driver yet: Update driver, Browse my computer, Let me pick, Universal Serial Bus "
      "devices, WinUSB Device (WinUSB.txt beside ferrolt.exe says more). Without hardware, "
      "FERROLT_EMULATOR=tcp:HOST:PORT points ferrolt at ferrolt-devsim.\n",
      wanted.vendorId, wanted.productId, wanted.interfaceNumber, wanted.interfaceNumber, wanted.interfaceNumber);
}

}  // namespace ferrolt::platform
