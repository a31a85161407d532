// The devices a backend can reach that answer to the device's ids and
// vendor interface, for a program's listing.
#pragma once

#include <vector>

#include "platform/DeviceBackend.h"

namespace ferrolt {

// In listing order; a device the backend cannot identify shows its path as
// its place.
std::vector<platform::AttachedDevice> ListAttachedDevices(platform::DeviceBackend& backend);

}  // namespace ferrolt
