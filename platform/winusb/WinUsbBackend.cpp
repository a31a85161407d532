#include "platform/winusb/WinUsbBackend.h"

#include <windows.h>

#include "platform/winusb/SetupApiListing.h"
#include "platform/winusb/SetupHints.h"
#include "platform/winusb/WinUsbConnection.h"

namespace ferrolt::platform {
namespace {

constexpr DWORD kAccess = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD kSharing = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr DWORD kAttributes = FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED;

class WinUsbBackend final : public DeviceBackend {
 public:
  WinUsbBackend(const WinUsbApi& api, const SetupApi& setup) : api_(api), setup_(setup) {}

  InterfaceListing ListInterfaces() override { return ListUsbDeviceInterfaces(setup_); }

  std::vector<std::string> ListRegisteredInterfaces(const UsbInterfaceId& wanted) override {
    return platform::ListRegisteredInterfaces(setup_, wanted);
  }

  std::unique_ptr<DeviceConnection> Open(const std::string& path) override {
    const HANDLE file =
        setup_.CreateFileA(path.c_str(), kAccess, kSharing, nullptr, OPEN_EXISTING, kAttributes, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
      HintOpenFailure(GetLastError());
      return nullptr;
    }
    return std::make_unique<WinUsbConnection>(api_, file);
  }

 private:
  const WinUsbApi& api_;
  const SetupApi& setup_;
};

}  // namespace

std::unique_ptr<DeviceBackend> CreateWinUsbBackend(const WinUsbApi& api, const SetupApi& setup) {
  return std::make_unique<WinUsbBackend>(api, setup);
}

}  // namespace ferrolt::platform
