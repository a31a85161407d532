// The emulator link: a device emulator reached over a Unix-domain stream
// socket (a path) or TCP ("tcp:HOST:PORT"). One connection is one opened link.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/DeviceBackend.h"
#include "platform/Hint.h"

namespace ferrolt::platform {

// The environment variable that selects the emulator link.
inline constexpr const char* kEmulatorVariable = "FERROLT_EMULATOR";
// A program names the emulated device by this and the address.
inline constexpr std::string_view kEmulatorPlacePrefix = "emulator:";

// An emulator that cannot be reached is hinted to hints, which must outlive
// the backend.
std::unique_ptr<DeviceBackend> CreateEmulatorBackend(const std::string& endpoint,
                                                     HintSink& hints = StandardErrorHints());

}  // namespace ferrolt::platform
