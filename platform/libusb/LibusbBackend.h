// The USB backend for Linux and other POSIX systems, on libusb-1.0.
#pragma once

#include <memory>

#include "platform/DeviceBackend.h"
#include "platform/DeviceChoice.h"
#include "platform/Hint.h"

namespace ferrolt::platform {

// It lists the devices choice names only; its hints go to hints, which must
// outlive it and every connection it opens.
std::unique_ptr<DeviceBackend> CreateLibusbBackend(DeviceChoice choice = ChosenDevice(),
                                                   HintSink& hints = StandardErrorHints());

}  // namespace ferrolt::platform
