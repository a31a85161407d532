// Every SetupAPI, registry and file-opening call the backend makes to find
// and open a device interface, reached through one table as the WinUSB calls
// are: the product uses the system's functions, and tests point the table at a
// stand-in that lists the device nodes a real system would (Wine's SetupAPI
// lists no USB device at all).
#pragma once

#include <windows.h>
// After windows.h, which it needs.
#include <setupapi.h>

namespace ferrolt::platform {

struct SetupApi {
  decltype(&SetupDiGetClassDevsA) GetClassDevs;
  decltype(&SetupDiEnumDeviceInfo) EnumDeviceInfo;
  decltype(&SetupDiGetDeviceRegistryPropertyA) GetDeviceRegistryProperty;
  decltype(&SetupDiGetDeviceInstanceIdA) GetDeviceInstanceId;
  decltype(&SetupDiOpenDevRegKey) OpenDevRegKey;
  decltype(&RegQueryValueExA) QueryValue;
  decltype(&RegCloseKey) CloseKey;
  decltype(&SetupDiEnumDeviceInterfaces) EnumDeviceInterfaces;
  decltype(&SetupDiGetDeviceInterfaceDetailA) GetDeviceInterfaceDetail;
  decltype(&SetupDiDestroyDeviceInfoList) DestroyDeviceInfoList;
  decltype(&SetupDiGetDevicePropertyW) GetDeviceProperty;
  decltype(&CreateFileA) CreateFileA;
};

// The system's functions, from setupapi.dll, advapi32.dll and kernel32.dll.
const SetupApi& RealSetupApi();

}  // namespace ferrolt::platform
