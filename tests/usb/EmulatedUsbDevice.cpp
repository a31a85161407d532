#include "tests/usb/EmulatedUsbDevice.h"

#include "devsim/Options.h"

namespace ferrolt::test::usb {
namespace {

ToolEnvironment OnBus(const std::string& busRoot) {
  return {{{"LD_PRELOAD", devsim::PreloadList()}, {"UMOCKDEV_DIR", busRoot}}, {"FERROLT_EMULATOR"}};
}

}  // namespace

EmulatedUsbDevice::EmulatedUsbDevice(const UsbDeviceOptions& options)
    : root_(options.root.empty() ? dir_ / "root" : options.root) {
  // The socket is never opened: only the device settings and the hello are used.
  std::vector<std::string> args = {"--socket", (dir_ / "unused.sock").string(),
                                   "--root",   root_.string(),
                                   "--record", (dir_ / "received.bin").string(),
                                   "--events", (dir_ / "events.log").string()};
  args.insert(args.end(), options.devsimArgs.begin(), options.devsimArgs.end());
  devsim::Options parsed;
  if (devsim::ParseOptions(args, parsed, error_) != devsim::ParseOutcome::Run) {
    if (error_.empty()) error_ = "no device for --help";
    return;
  }
  bus_ = std::make_unique<devsim::UsbBusDevice>(parsed.device, parsed.server.hello, options.faults);
}

ToolEnvironment EmulatedUsbDevice::Environment() const { return OnBus(bus_ != nullptr ? bus_->BusRoot() : ""); }

ToolEnvironment EmptyUsbBus::Environment() const { return OnBus(testbed_.Root()); }

}  // namespace ferrolt::test::usb
