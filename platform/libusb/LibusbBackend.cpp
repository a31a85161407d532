#include "platform/libusb/LibusbBackend.h"

#include <fstream>
#include <map>
#include <mutex>
#include <utility>

#include "platform/DeviceChoice.h"
#include "platform/UsbInterfacePath.h"
#include "platform/libusb/ConfigDescriptor.h"
#include "platform/libusb/LibusbConnection.h"
#include "platform/libusb/LibusbContext.h"
#include "platform/libusb/SetupHints.h"

namespace ferrolt::platform {
namespace {

constexpr int kUnrefDevices = 1;

// The devices present, released with their list.
class DeviceList {
 public:
  explicit DeviceList(libusb_context* context) {
    const ssize_t count = libusb_get_device_list(context, &devices_);
    count_ = count > 0 ? static_cast<size_t>(count) : 0;
  }
  ~DeviceList() {
    if (devices_ != nullptr) libusb_free_device_list(devices_, kUnrefDevices);
  }
  DeviceList(const DeviceList&) = delete;
  DeviceList& operator=(const DeviceList&) = delete;

  libusb_device* const* begin() const { return devices_; }
  libusb_device* const* end() const { return devices_ + count_; }

 private:
  libusb_device** devices_ = nullptr;
  size_t count_ = 0;
};

// The path instance names a device by its place on the buses: "BUS.ADDRESS".
std::string InstanceOf(libusb_device* device) {
  return std::to_string(libusb_get_bus_number(device)) + "." + std::to_string(libusb_get_device_address(device));
}

// USB 3 hubs nest at most 7 deep below the root.
constexpr int kMaxPortDepth = 7;
// Where the kernel keeps what it read of each device when it was plugged in,
// readable without access to the device node.
constexpr const char* kSysfsUsbDevices = "/sys/bus/usb/devices/";

// The bus path as lsusb -t and sysfs show it: "1-4.3", the bus and then the
// port of each hub on the way.
std::string BusPathOf(libusb_device* device) {
  uint8_t ports[kMaxPortDepth] = {};
  const int depth = libusb_get_port_numbers(device, ports, kMaxPortDepth);
  const std::string bus = std::to_string(libusb_get_bus_number(device));
  if (depth <= 0) return "usb" + bus;
  std::string path = bus + "-";
  for (int i = 0; i < depth; ++i) path += (i > 0 ? "." : "") + std::to_string(ports[i]);
  return path;
}

// The serial number the kernel read from the device; empty where there is
// none (or no sysfs, off Linux).
std::string SerialAt(const std::string& busPath) {
  std::ifstream file(kSysfsUsbDevices + busPath + "/serial");
  std::string serial;
  std::getline(file, serial);
  return serial;
}

const char* SpeedText(libusb_device* device) {
  switch (libusb_get_device_speed(device)) {
    case LIBUSB_SPEED_LOW:
      return "low speed";
    case LIBUSB_SPEED_FULL:
      return "full speed";
    case LIBUSB_SPEED_HIGH:
      return "high speed";
    case LIBUSB_SPEED_UNKNOWN:
      return "";
    default:
      return "super speed";
  }
}

void AppendInterfacePaths(libusb_device* device, std::vector<std::string>& paths) {
  libusb_device_descriptor descriptor{};
  if (libusb_get_device_descriptor(device, &descriptor) != LIBUSB_SUCCESS) return;
  const ConfigDescriptorPtr config = ReadConfigDescriptor(device);
  if (config == nullptr) return;
  for (int i = 0; i < config->bNumInterfaces; ++i) {
    const libusb_interface& interface = config->interface[i];
    if (interface.num_altsetting <= 0) continue;
    const UsbInterfaceId id{descriptor.idVendor, descriptor.idProduct, interface.altsetting[0].bInterfaceNumber};
    paths.push_back(FormatInterfacePath(id, InstanceOf(device)));
  }
}

class LibusbBackend final : public DeviceBackend {
 public:
  LibusbBackend(DeviceChoice choice, HintSink& hints) : choice_(std::move(choice)), hints_(hints) {}

  // No USB at all reads as a PC with nothing attached.
  InterfaceListing ListInterfaces() override {
    InterfaceListing listing;
    listing.listed = true;
    listing.lastError = kErrorNoMoreItems;
    const std::shared_ptr<LibusbContext> context = FreshContext();
    if (context == nullptr) return listing;
    const DeviceList devices(context->Get());
    std::map<std::string, AttachedDevice> attached;
    for (libusb_device* device : devices) {
      const std::string busPath = BusPathOf(device);
      const DeviceIdentity identity{busPath, SerialAt(busPath)};
      if (!Chooses(choice_, identity)) continue;
      attached[InstanceOf(device)] = AttachedDevice{busPath, identity.serial, SpeedText(device)};
      AppendInterfacePaths(device, listing.paths);
    }
    if (attached.empty() && choice_.by != DeviceChoice::By::Anything) HintChoiceMatchesNothing(hints_, choice_);
    std::lock_guard<std::mutex> lock(mutex_);
    attached_ = std::move(attached);
    return listing;
  }

  void HintNotFound(const UsbInterfaceId& wanted) override { HintNoDevice(hints_, wanted); }

  std::string DescribeDevice(const std::string& path) override {
    const std::optional<AttachedDevice> device = Identify(path);
    return device ? DescribeIdentity({device->place, device->serial}, device->speed) : std::string();
  }

  std::optional<AttachedDevice> Identify(const std::string& path) override {
    const std::optional<ParsedInterfacePath> parsed = ParseInterfacePath(path);
    if (!parsed) return std::nullopt;
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = attached_.find(parsed->instance);
    if (found == attached_.end()) return std::nullopt;
    return found->second;
  }

  std::unique_ptr<DeviceConnection> Open(const std::string& path) override {
    const std::optional<ParsedInterfacePath> parsed = ParseInterfacePath(path);
    if (!parsed) return nullptr;
    const std::shared_ptr<LibusbContext> context = Context();
    if (context == nullptr) return nullptr;
    const DeviceList devices(context->Get());
    for (libusb_device* device : devices) {
      if (InstanceOf(device) != parsed->instance) continue;
      libusb_device_handle* handle = nullptr;
      const int opened = libusb_open(device, &handle);
      if (opened != LIBUSB_SUCCESS) {
        HintOpenFailure(hints_, device, parsed->id.vendorId, parsed->id.productId, opened);
        return nullptr;
      }
      return std::make_unique<LibusbConnection>(context, handle, parsed->id.interfaceNumber, hints_);
    }
    return nullptr;
  }

 private:
  // A session of its own for each listing: libusb keeps its device list up
  // to date from udev's events, and where no udev daemon runs (a minimal
  // system, a container) nothing does, so a device plugged in again would
  // stay unseen and one pulled out would stay listed. A fresh session scans
  // the buses anew; the connections opened keep their own session alive.
  std::shared_ptr<LibusbContext> FreshContext() {
    std::shared_ptr<LibusbContext> context = LibusbContext::Create();
    std::lock_guard<std::mutex> lock(mutex_);
    context_ = context;
    return context;
  }
  // The session of the last listing, whose paths Open is given; started here
  // when nothing was listed yet.
  std::shared_ptr<LibusbContext> Context() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (context_ != nullptr) return context_;
    }
    return FreshContext();
  }

  const DeviceChoice choice_;
  HintSink& hints_;
  std::mutex mutex_;
  std::shared_ptr<LibusbContext> context_;
  // What the last listing showed of each device, by path instance.
  std::map<std::string, AttachedDevice> attached_;
};

}  // namespace

std::unique_ptr<DeviceBackend> CreateLibusbBackend(DeviceChoice choice, HintSink& hints) {
  return std::make_unique<LibusbBackend>(std::move(choice), hints);
}

}  // namespace ferrolt::platform
