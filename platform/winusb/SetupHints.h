// Hints for the set-up faults a Windows user can fix alone:
// no device to be seen, the device held by another program, and an interface
// without the WinUSB driver. The console lines of a failed open stay as they
// are; each hint is printed at most once a run, however often the link
// retries.
#pragma once

#include <windows.h>

#include "platform/Hint.h"
#include "platform/UsbInterfacePath.h"

namespace ferrolt::platform {

// CreateFile on the interface path failed with error.
void HintOpenFailure(HintSink& hints, DWORD error);

// WinUsb_Initialize failed with error.
void HintDriverFailure(HintSink& hints, DWORD error);

// No listed interface has the wanted ids and interface.
void HintNoDevice(HintSink& hints, const UsbInterfaceId& wanted);

}  // namespace ferrolt::platform
