// The present USB device interfaces as SetupAPI lists them.
#pragma once

#include "platform/DeviceBackend.h"
#include "platform/winusb/SetupApi.h"

namespace ferrolt::platform {

// Every present interface of class GUID_DEVINTERFACE_USB_DEVICE, with the
// Windows error the enumeration ended with (ERROR_NO_MORE_ITEMS when it ran
// to its end, ERROR_NOT_ENOUGH_MEMORY when a detail record could not be
// allocated). An interface whose detail cannot be read is left out.
InterfaceListing ListUsbDeviceInterfaces(const SetupApi& api);

}  // namespace ferrolt::platform
