#include "platform/winusb/WinUsbApi.h"

namespace ferrolt::platform {

const WinUsbApi& RealWinUsbApi() {
  static const WinUsbApi api{
      WinUsb_Initialize,
      WinUsb_Free,
      WinUsb_QueryInterfaceSettings,
      WinUsb_QueryPipe,
      WinUsb_QueryDeviceInformation,
      WinUsb_WritePipe,
      WinUsb_ReadPipe,
      WinUsb_GetOverlappedResult,
      WinUsb_FlushPipe,
      WinUsb_AbortPipe,
      WinUsb_ResetPipe,
  };
  return api;
}

}  // namespace ferrolt::platform
