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
  explicit WinUsbBackend(const WinUsbApi& api) : api_(api) {}

  InterfaceListing ListInterfaces() override { return ListUsbDeviceInterfaces(); }

  std::unique_ptr<DeviceConnection> Open(const std::string& path) override {
    const HANDLE file = CreateFileA(path.c_str(), kAccess, kSharing, nullptr, OPEN_EXISTING, kAttributes, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
      HintOpenFailure(GetLastError());
      return nullptr;
    }
    return std::make_unique<WinUsbConnection>(api_, file);
  }

 private:
  const WinUsbApi& api_;
};

}  // namespace

std::unique_ptr<DeviceBackend> CreateWinUsbBackend(const WinUsbApi& api) {
  return std::make_unique<WinUsbBackend>(api);
}

}  // namespace ferrolt::platform
