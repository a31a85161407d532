#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/DeviceBackend.h"
#include "platform/DeviceChoice.h"
#include "platform/emulator/EmulatorBackend.h"
#ifdef _WIN32
#include "platform/winusb/WinUsbBackend.h"
#else
#include "platform/libusb/LibusbBackend.h"
#endif

namespace ferrolt::platform {
namespace {

std::unique_ptr<DeviceBackend> CreateUsbBackend(const DeviceChoice& choice) {
#ifdef _WIN32
  return CreateWinUsbBackend(RealWinUsbApi(), RealSetupApi(), choice);
#else
  return CreateLibusbBackend(choice);
#endif
}

}  // namespace

std::unique_ptr<DeviceBackend> CreateDefaultBackend() {
  const char* endpoint = std::getenv(kEmulatorVariable);
  if (endpoint != nullptr && *endpoint != '\0') return CreateEmulatorBackend(endpoint);
  return CreateUsbBackend(ChosenDevice());
}

std::unique_ptr<DeviceBackend> CreateBackendFor(const char* place) {
  if (place == nullptr || *place == '\0') return CreateDefaultBackend();
  const std::string_view text = place;
  if (!text.starts_with(kEmulatorPlacePrefix)) return CreateUsbBackend(ParseDeviceChoice(place));
  const std::string address(text.substr(kEmulatorPlacePrefix.size()));
  return address.empty() ? nullptr : CreateEmulatorBackend(address);
}

}  // namespace ferrolt::platform
