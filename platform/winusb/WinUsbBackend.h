// The USB backend for Windows: SetupAPI finds the device interfaces, the
// kernel opens them, WinUSB moves the blocks.
#pragma once

#include <memory>

#include "platform/DeviceBackend.h"
#include "platform/DeviceChoice.h"
#include "platform/Hint.h"
#include "platform/winusb/SetupApi.h"
#include "platform/winusb/WinUsbApi.h"

namespace ferrolt::platform {

// Both tables and hints must outlive the backend and every connection it
// opens. It lists the devices choice names only.
std::unique_ptr<DeviceBackend> CreateWinUsbBackend(const WinUsbApi& api = RealWinUsbApi(),
                                                   const SetupApi& setup = RealSetupApi(),
                                                   DeviceChoice choice = ChosenDevice(),
                                                   HintSink& hints = StandardErrorHints());

}  // namespace ferrolt::platform
