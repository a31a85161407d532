// The present USB device interfaces as SetupAPI lists them.
#pragma once

#include <string>
#include <vector>

#include "platform/DeviceBackend.h"
#include "platform/DeviceChoice.h"
#include "platform/winusb/SetupApi.h"

namespace ferrolt::platform {

// Every present interface of class GUID_DEVINTERFACE_USB_DEVICE, with the
// Windows error the enumeration ended with (ERROR_NO_MORE_ITEMS when it ran
// to its end, ERROR_NOT_ENOUGH_MEMORY when a detail record could not be
// allocated). An interface whose detail cannot be read is left out.
// identities gets what each listed path's device is known by, in step.
InterfaceListing ListUsbDeviceInterfaces(const SetupApi& api, std::vector<DeviceIdentity>& identities);

// The interface paths that the present device node with hardware id
// USB\VID_xxxx&PID_xxxx&MI_nn registered under the interface classes named
// in its DeviceInterfaceGUIDs (or DeviceInterfaceGUID) registry value. Empty
// when there is no such node or it names no class.
std::vector<std::string> ListRegisteredInterfaces(const SetupApi& api, const UsbInterfaceId& wanted,
                                                  std::vector<DeviceIdentity>& identities);

}  // namespace ferrolt::platform
