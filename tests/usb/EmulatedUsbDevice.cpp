#include "tests/usb/EmulatedUsbDevice.h"

#include "devsim/Options.h"

namespace ferrolt::test::usb {
namespace {

constexpr uint8_t kHelloReady = 0;
constexpr uint8_t kHelloNoDriver = 3;

// The device ferrolt-devsim's hello describes, as a USB device: the ids, the
// interfaces up to the announced one (which carries the bulk pair), the speed,
// and a vendor interface no one can claim for "no driver bound".
bool ShapeFromHello(const devsim::LinkHello& hello, UsbDeviceModel& model, UsbFaults& faults, std::string& error) {
  model.vendorId = hello.vendorId;
  model.productId = hello.productId;
  model.bulkInterface = hello.interfaceNumber;
  model.interfaceCount = static_cast<uint8_t>(hello.interfaceNumber + 1);
  switch (hello.speed) {
    case 1:
      model.speed = UsbSpeed::Low;
      break;
    case 2:
      model.speed = UsbSpeed::Full;
      break;
    case 3:
      model.speed = UsbSpeed::High;
      break;
    default:
      error = "speed " + std::to_string(hello.speed) + " has no USB form";
      return false;
  }
  if (hello.state == kHelloNoDriver) faults.claimable = false;
  if (hello.state != kHelloReady && hello.state != kHelloNoDriver) {
    error = "state " + std::to_string(hello.state) + " exists only on the emulator link";
    return false;
  }
  return true;
}

}  // namespace

EmulatedUsbDevice::EmulatedUsbDevice(const UsbDeviceOptions& options)
    : root_(options.root.empty() ? dir_ / "root" : options.root),
      record_(dir_ / "received.bin"),
      events_(dir_ / "events.log") {
  // The socket is never opened: only the device settings and the hello are used.
  std::vector<std::string> args = {"--socket", (dir_ / "unused.sock").string(),
                                   "--root",   root_.string(),
                                   "--record", record_.string(),
                                   "--events", events_.string()};
  args.insert(args.end(), options.devsimArgs.begin(), options.devsimArgs.end());
  devsim::Options parsed;
  if (devsim::ParseOptions(args, parsed, error_) != devsim::ParseOutcome::Run) {
    if (error_.empty()) error_ = "no device for --help";
    return;
  }
  UsbFaults faults = options.faults;
  if (!ShapeFromHello(parsed.server.hello, model_, faults, error_)) return;
  device_ = devsim::Device::Create(parsed.device, error_);
  if (device_ == nullptr) return;
  usb_ = std::make_unique<UsbdevfsDevice>(*device_, model_.bulkInterface, BulkPacketSizeOf(model_.speed), faults);
  Plug();
}

EmulatedUsbDevice::~EmulatedUsbDevice() = default;

std::vector<Block> EmulatedUsbDevice::Received() const { return ReadBlocks(record_); }

std::string EmulatedUsbDevice::Events() const { return ReadFile(events_); }

void EmulatedUsbDevice::Stop() { Unplug(); }

void EmulatedUsbDevice::Unplug() {
  if (!plugged_) return;
  usb_->Unplug();
  const std::string sysfsPath = SysfsPathOf(address_);
  // Sent while the entries still exist: the event carries what they say.
  if (RunsPreloaded()) testbed_.SendUevent(sysfsPath, "remove");
  testbed_.RemoveDevice(sysfsPath);
  plugged_ = false;
}

bool EmulatedUsbDevice::Replug() {
  if (plugged_ || usb_ == nullptr) return false;
  ++address_.device;
  // umockdev announces an added device itself.
  return Plug();
}

bool EmulatedUsbDevice::Plug() {
  // The handler listens before the node exists: a program that opened a node
  // with no handler behind it would be killed.
  if (!testbed_.AttachHandler(DeviceNodeOf(address_), usb_->Handler(), error_)) return false;
  usb_->Plug();
  if (!testbed_.AddDevice(SysfsRecordOf(model_, address_), error_)) return false;
  plugged_ = true;
  return true;
}

}  // namespace ferrolt::test::usb
