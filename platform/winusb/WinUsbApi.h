// Every WinUSB function the backend calls, reached through one table: the
// product uses the driver's own functions, and tests point the table at a
// stand-in (Wine's winusb.dll exports the functions but implements almost
// none of them).
#pragma once

#include <windows.h>
#include <winusb.h>

namespace ferrolt::platform {

struct WinUsbApi {
  decltype(&WinUsb_Initialize) Initialize;
  decltype(&WinUsb_Free) Free;
  decltype(&WinUsb_QueryInterfaceSettings) QueryInterfaceSettings;
  decltype(&WinUsb_QueryPipe) QueryPipe;
  decltype(&WinUsb_QueryDeviceInformation) QueryDeviceInformation;
  decltype(&WinUsb_WritePipe) WritePipe;
  decltype(&WinUsb_ReadPipe) ReadPipe;
  decltype(&WinUsb_GetOverlappedResult) GetOverlappedResult;
  decltype(&WinUsb_FlushPipe) FlushPipe;
  decltype(&WinUsb_AbortPipe) AbortPipe;
  decltype(&WinUsb_ResetPipe) ResetPipe;
};

// The driver's functions, from winusb.dll.
const WinUsbApi& RealWinUsbApi();

}  // namespace ferrolt::platform
