#include <cstdlib>

#include "platform/DeviceBackend.h"
#include "platform/emulator/EmulatorBackend.h"
#ifndef _WIN32
#include "platform/libusb/LibusbBackend.h"
#endif

namespace ferrolt::platform {

std::unique_ptr<DeviceBackend> CreateDefaultBackend() {
  const char* endpoint = std::getenv(kEmulatorVariable);
  const bool emulated = endpoint != nullptr && *endpoint != '\0';
#ifndef _WIN32
  if (!emulated) return CreateLibusbBackend();
#endif
  // Until the WinUSB backend is in, a Windows build reaches a device only over
  // the emulator link; without an endpoint it finds none.
  return CreateEmulatorBackend(emulated ? endpoint : "");
}

}  // namespace ferrolt::platform
