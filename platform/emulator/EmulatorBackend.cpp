#include "platform/emulator/EmulatorBackend.h"

#include <mutex>
#include <optional>

#include "platform/Hint.h"
#include "platform/UsbInterfacePath.h"
#include "platform/emulator/EmulatorConnection.h"
#include "platform/emulator/EmulatorProtocol.h"
#include "platform/emulator/SocketEndpoint.h"

namespace ferrolt::platform {
namespace {

using emulator::EmulatorConnection;
using emulator::Hello;

// A device that answered a listing: its socket waits there for Open().
struct ListedDevice {
  UniqueSocket socket;
  Hello hello;
  std::string path;
};

Hint unreachableHint;

const char* SpeedName(uint8_t speed) {
  switch (speed) {
    case kSpeedLow:
      return "low speed";
    case kSpeedFull:
      return "full speed";
    case kSpeedHigh:
      return "high speed";
    default:
      return "";
  }
}

// The emulator named cannot serve: said once a run with the address and why.
void HintUnreachable(HintSink& hints, const std::string& endpoint, const std::string& why) {
  unreachableHint.Print(hints, "cannot reach the device emulator at %s=%s: %s.\n", kEmulatorVariable, endpoint.c_str(),
                        why.c_str());
}

// Connects and reads the hello, both within the hello wait. Empty when no
// device answered as one.
std::optional<ListedDevice> Discover(const std::string& endpoint, HintSink& hints) {
  const Deadline deadline = std::chrono::steady_clock::now() + emulator::kHelloWait;
  std::string failure;
  UniqueSocket socket = ConnectEndpoint(endpoint, deadline, failure);
  if (!socket.Valid()) {
    HintUnreachable(hints, endpoint, failure);
    return std::nullopt;
  }
  std::array<uint8_t, emulator::kHelloSize> bytes{};
  const std::optional<Hello> hello =
      ReceiveBefore(socket.Get(), bytes.data(), bytes.size(), deadline) ? emulator::ParseHello(bytes) : std::nullopt;
  if (!hello) {
    HintUnreachable(hints, endpoint,
                    "it sent no device hello within " + std::to_string(emulator::kHelloWait.count()) + " ms");
    return std::nullopt;
  }
  return ListedDevice{std::move(socket), *hello, emulator::InterfacePathOf(*hello)};
}

class EmulatorBackend final : public DeviceBackend {
 public:
  EmulatorBackend(std::string endpoint, HintSink& hints) : endpoint_(std::move(endpoint)), hints_(hints) {}

  // Lists the one emulated device, or nothing: an absent device looks to the
  // layer above exactly like a PC without the device attached.
  InterfaceListing ListInterfaces() override {
    std::lock_guard<std::mutex> lock(mutex_);
    listed_.reset();
    InterfaceListing listing;
    listing.listed = true;
    listing.lastError = kErrorNoMoreItems;
    listed_ = Discover(endpoint_, hints_);
    if (listed_) listing.paths.push_back(listed_->path);
    return listing;
  }

  std::optional<AttachedDevice> Identify(const std::string& path) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!listed_ || !SamePath(path, listed_->path)) return std::nullopt;
    return AttachedDevice{std::string(kEmulatorPlacePrefix) + endpoint_, "", SpeedName(listed_->hello.speed)};
  }

  // One connection is one opened link: opening adopts the listed connection.
  std::unique_ptr<DeviceConnection> Open(const std::string& path) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!listed_ || !SamePath(path, listed_->path)) return nullptr;
    auto connection = std::make_unique<EmulatorConnection>(std::move(listed_->socket), listed_->hello);
    listed_.reset();
    return connection;
  }

 private:
  const std::string endpoint_;
  HintSink& hints_;
  std::mutex mutex_;
  std::optional<ListedDevice> listed_;
};

}  // namespace

std::unique_ptr<DeviceBackend> CreateEmulatorBackend(const std::string& endpoint, HintSink& hints) {
  return std::make_unique<EmulatorBackend>(endpoint, hints);
}

}  // namespace ferrolt::platform
