// Hints for the set-up faults a Linux user can fix alone:
// no device to be seen, no permission on the device node, and an interface
// someone else holds. The console lines of a failed open stay as they are;
// each hint is printed at most once a run, however often the link retries.
#pragma once

#include <libusb.h>

#include <cstdint>

#include "platform/Hint.h"
#include "platform/UsbInterfacePath.h"

namespace ferrolt::platform {

// libusb_open failed with error on device, whose ids are vendorId:productId.
void HintOpenFailure(HintSink& hints, libusb_device* device, uint16_t vendorId, uint16_t productId, int error);

// libusb_claim_interface failed with error.
void HintClaimFailure(HintSink& hints, libusb_device* device, uint8_t interfaceNumber, int error);

// No listed device has the wanted ids and interface.
void HintNoDevice(HintSink& hints, const UsbInterfaceId& wanted);

}  // namespace ferrolt::platform
