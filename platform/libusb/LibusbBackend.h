// The USB backend for Linux and other POSIX systems, on libusb-1.0.
#pragma once

#include <memory>

#include "platform/DeviceBackend.h"

namespace ferrolt::platform {

std::unique_ptr<DeviceBackend> CreateLibusbBackend();

}  // namespace ferrolt::platform
