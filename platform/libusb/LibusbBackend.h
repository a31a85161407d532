// The USB backend for Linux and other POSIX systems, on libusb-1.0.
#pragma once

#include <memory>

#include "platform/DeviceBackend.h"
#include "platform/DeviceChoice.h"

namespace ferrolt::platform {

// It lists the devices choice names only.
std::unique_ptr<DeviceBackend> CreateLibusbBackend(DeviceChoice choice = ChosenDevice());

}  // namespace ferrolt::platform
