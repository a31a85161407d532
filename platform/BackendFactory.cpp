#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/DeviceBackend.h"
#include "platform/TracingBackend.h"
#include "platform/DeviceChoice.h"
#include "platform/emulator/EmulatorBackend.h"
#ifdef _WIN32
#include "platform/winusb/WinUsbBackend.h"
#else
#include "platform/libusb/LibusbBackend.h"
#endif

namespace ferrolt::platform {
namespace {

std::unique_ptr<DeviceBackend> CreateUsbBackend(const DeviceChoice& choice, HintSink& hints) {
#ifdef _WIN32
  return CreateWinUsbBackend(RealWinUsbApi(), RealSetupApi(), choice, hints);
#else
  return CreateLibusbBackend(choice, hints);
#endif
}

std::unique_ptr<DeviceBackend> CreateChosenBackend(HintSink& hints) {
  const char* endpoint = std::getenv(kEmulatorVariable);
  if (endpoint != nullptr && *endpoint != '\0') return CreateEmulatorBackend(endpoint, hints);
  return CreateUsbBackend(ChosenDevice(), hints);
}

}  // namespace

std::unique_ptr<DeviceBackend> CreateDefaultBackend(HintSink& hints) {
  return TracedWhenAsked(CreateChosenBackend(hints));
}

std::unique_ptr<DeviceBackend> CreateBackendFor(const char* place, HintSink& hints) {
  if (place == nullptr || *place == '\0') return CreateDefaultBackend(hints);
  const std::string_view text = place;
  if (!text.starts_with(kEmulatorPlacePrefix)) return CreateUsbBackend(ParseDeviceChoice(place), hints);
  const std::string address(text.substr(kEmulatorPlacePrefix.size()));
  return address.empty() ? nullptr : CreateEmulatorBackend(address, hints);
}

}  // namespace ferrolt::platform
