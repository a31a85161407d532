#include "platform/winusb/SetupApi.h"

namespace ferrolt::platform {

const SetupApi& RealSetupApi() {
  static const SetupApi api{
      SetupDiGetClassDevsA,
      SetupDiEnumDeviceInfo,
      SetupDiGetDeviceRegistryPropertyA,
      SetupDiGetDeviceInstanceIdA,
      SetupDiOpenDevRegKey,
      RegQueryValueExA,
      RegCloseKey,
      SetupDiEnumDeviceInterfaces,
      SetupDiGetDeviceInterfaceDetailA,
      SetupDiDestroyDeviceInfoList,
      SetupDiGetDevicePropertyW,
      CreateFileA,
  };
  return api;
}

}  // namespace ferrolt::platform
