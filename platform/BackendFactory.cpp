#include <cstdlib>

#include "platform/DeviceBackend.h"
#include "platform/TracingBackend.h"
#include "platform/emulator/EmulatorBackend.h"
#ifdef _WIN32
#include "platform/winusb/WinUsbBackend.h"
#else
#include "platform/libusb/LibusbBackend.h"
#endif

namespace ferrolt::platform {

namespace {

std::unique_ptr<DeviceBackend> CreateChosenBackend() {
  const char* endpoint = std::getenv(kEmulatorVariable);
  if (endpoint != nullptr && *endpoint != '\0') return CreateEmulatorBackend(endpoint);
#ifdef _WIN32
  return CreateWinUsbBackend();
#else
  return CreateLibusbBackend();
#endif
}

}  // namespace

std::unique_ptr<DeviceBackend> CreateDefaultBackend() { return TracedWhenAsked(CreateChosenBackend()); }

}  // namespace ferrolt::platform
