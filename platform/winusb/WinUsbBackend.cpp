#include "platform/winusb/WinUsbBackend.h"

#include <windows.h>

#include <map>
#include <mutex>
#include <utility>

#include "platform/AsciiText.h"
#include "platform/DeviceChoice.h"
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
  WinUsbBackend(const WinUsbApi& api, const SetupApi& setup, DeviceChoice choice, HintSink& hints)
      : api_(api), setup_(setup), choice_(std::move(choice)), hints_(hints) {}

  InterfaceListing ListInterfaces() override {
    std::vector<DeviceIdentity> identities;
    InterfaceListing listing = ListUsbDeviceInterfaces(setup_, identities);
    std::lock_guard<std::mutex> lock(mutex_);
    descriptions_.clear();
    listing.paths = KeepChosen(listing.paths, identities);
    return listing;
  }

  // The vendor interface of a chosen device may be registered only here: a
  // choice that matched nothing is said once both searches found nothing.
  std::vector<std::string> ListRegisteredInterfaces(const UsbInterfaceId& wanted) override {
    std::vector<DeviceIdentity> identities;
    const std::vector<std::string> paths = platform::ListRegisteredInterfaces(setup_, wanted, identities);
    std::lock_guard<std::mutex> lock(mutex_);
    const bool listedBefore = !descriptions_.empty();
    std::vector<std::string> kept = KeepChosen(paths, identities);
    if (kept.empty() && !listedBefore && choice_.by != DeviceChoice::By::Anything)
      HintChoiceMatchesNothing(hints_, choice_);
    return kept;
  }

  void HintNotFound(const UsbInterfaceId& wanted) override { HintNoDevice(hints_, wanted); }

  std::string DescribeDevice(const std::string& path) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = descriptions_.find(AsciiLowered(path));
    return found != descriptions_.end() ? found->second : std::string();
  }

  std::unique_ptr<DeviceConnection> Open(const std::string& path) override {
    const HANDLE file =
        setup_.CreateFileA(path.c_str(), kAccess, kSharing, nullptr, OPEN_EXISTING, kAttributes, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
      HintOpenFailure(hints_, GetLastError());
      return nullptr;
    }
    return std::make_unique<WinUsbConnection>(api_, file, hints_);
  }

 private:
  // The paths whose devices the choice names, each described for a list of
  // several. Called with mutex_ held.
  std::vector<std::string> KeepChosen(const std::vector<std::string>& paths,
                                      const std::vector<DeviceIdentity>& identities) {
    std::vector<std::string> kept;
    for (size_t i = 0; i < paths.size() && i < identities.size(); ++i) {
      if (!Chooses(choice_, identities[i])) continue;
      kept.push_back(paths[i]);
      descriptions_[AsciiLowered(paths[i])] = DescribeIdentity(identities[i], "");
    }
    return kept;
  }

  const WinUsbApi& api_;
  const SetupApi& setup_;
  const DeviceChoice choice_;
  HintSink& hints_;
  std::mutex mutex_;
  // What the last listing showed of each chosen path's device, by the
  // lower-cased path.
  std::map<std::string, std::string> descriptions_;
};

}  // namespace

std::unique_ptr<DeviceBackend> CreateWinUsbBackend(const WinUsbApi& api, const SetupApi& setup, DeviceChoice choice,
                                                   HintSink& hints) {
  return std::make_unique<WinUsbBackend>(api, setup, std::move(choice), hints);
}

}  // namespace ferrolt::platform
