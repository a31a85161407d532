#include "devsim/usbdevfs/UsbBusDevice.h"

namespace ferrolt::devsim {
namespace {

constexpr uint8_t kHelloReady = 0;
constexpr uint8_t kHelloNoDriver = 3;
// Neighbours sit at ports from here, clear of the addresses a replug of the
// first device takes.
constexpr int kFirstNeighbourAddress = 20;

bool ShapeFromHello(const LinkHello& hello, UsbDeviceModel& model, UsbFaults& faults, std::string& error) {
  if (!ModelFromHello(hello, model, error)) return false;
  if (hello.state == kHelloNoDriver) faults.claimable = false;
  if (hello.state != kHelloReady && hello.state != kHelloNoDriver) {
    error = "state " + std::to_string(hello.state) + " exists only on the emulator link";
    return false;
  }
  return true;
}

}  // namespace

UsbBusDevice::UsbBusDevice(const DeviceSettings& settings, const LinkHello& hello, const UsbFaults& faults) {
  UsbFaults shaped = WithPlannedFaults(faults, settings.faults);
  if (!ShapeFromHello(hello, model_, shaped, error_)) return;
  device_ = Device::Create(settings, error_);
  if (device_ == nullptr) return;
  usb_ = std::make_unique<UsbdevfsDevice>(*device_, model_.bulkInterface, BulkPacketSizeOf(model_.speed), shaped);
  Plug();
}

UsbBusDevice::~UsbBusDevice() = default;

void UsbBusDevice::Unplug() {
  if (!plugged_) return;
  usb_->Unplug();
  const std::string sysfsPath = SysfsPathOf(address_);
  // Sent while the entries still exist: the event carries what they say.
  if (RunsPreloaded()) testbed_.SendUevent(sysfsPath, "remove");
  testbed_.RemoveDevice(sysfsPath);
  plugged_ = false;
}

bool UsbBusDevice::Replug() {
  if (plugged_ || usb_ == nullptr) return false;
  ++address_.device;
  // umockdev announces an added device itself.
  return Plug();
}

bool UsbBusDevice::PlugAnother(const DeviceSettings& settings, const std::string& serial) {
  if (usb_ == nullptr) return false;
  auto neighbour = std::make_unique<Neighbour>();
  neighbour->model = model_;
  neighbour->model.serial = serial;
  neighbour->device = Device::Create(settings, error_);
  if (neighbour->device == nullptr) return false;
  neighbour->usb =
      std::make_unique<UsbdevfsDevice>(*neighbour->device, model_.bulkInterface, BulkPacketSizeOf(model_.speed),
                                       WithPlannedFaults(UsbFaults{}, settings.faults));
  const UsbAddress address{address_.bus, kFirstNeighbourAddress + static_cast<int>(neighbours_.size())};
  if (!testbed_.AttachHandler(DeviceNodeOf(address), neighbour->usb->Handler(), error_)) return false;
  neighbour->usb->Plug();
  if (!testbed_.AddDevice(SysfsRecordOf(neighbour->model, address), error_)) return false;
  neighbours_.push_back(std::move(neighbour));
  return true;
}

bool UsbBusDevice::Plug() {
  // The handler listens before the node exists: a program that opened a node
  // with no handler behind it would be killed.
  if (!testbed_.AttachHandler(DeviceNodeOf(address_), usb_->Handler(), error_)) return false;
  usb_->Plug();
  if (!testbed_.AddDevice(SysfsRecordOf(model_, address_), error_)) return false;
  plugged_ = true;
  return true;
}

}  // namespace ferrolt::devsim
