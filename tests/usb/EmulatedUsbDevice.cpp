#include "tests/usb/EmulatedUsbDevice.h"

#include "devsim/Options.h"

namespace ferrolt::test::usb {
namespace {

// ferrolt-devsim's options for a device kept in dir and root. Its socket is
// never opened: only the device settings and the hello are used.
std::vector<std::string> DevsimArgs(const fs::path& dir, const fs::path& root) {
  return {"--socket", (dir / "unused.sock").string(),  "--root",   root.string(),
          "--record", (dir / "received.bin").string(), "--events", (dir / "events.log").string()};
}

ToolEnvironment OnBus(const std::string& busRoot) {
  return {{{"LD_PRELOAD", devsim::PreloadList()}, {"UMOCKDEV_DIR", busRoot}}, {"FERROLT_EMULATOR"}};
}

}  // namespace

EmulatedUsbDevice::EmulatedUsbDevice(const UsbDeviceOptions& options)
    : root_(options.root.empty() ? dir_ / "root" : options.root) {
  std::vector<std::string> args = DevsimArgs(dir_.Path(), root_);
  args.insert(args.end(), options.devsimArgs.begin(), options.devsimArgs.end());
  devsim::Options parsed;
  if (devsim::ParseOptions(args, parsed, error_) != devsim::ParseOutcome::Run) {
    if (error_.empty()) error_ = "no device for --help";
    return;
  }
  bus_ = std::make_unique<devsim::UsbBusDevice>(parsed.device, parsed.server.hello, options.faults);
}

bool EmulatedUsbDevice::PlugAnother(const fs::path& dir, const std::string& serial) {
  devsim::Options parsed;
  std::string error;
  if (bus_ == nullptr ||
      devsim::ParseOptions(DevsimArgs(dir, dir / "root"), parsed, error) != devsim::ParseOutcome::Run)
    return false;
  return bus_->PlugAnother(parsed.device, serial);
}

ToolEnvironment EmulatedUsbDevice::Environment() const { return OnBus(bus_ != nullptr ? bus_->BusRoot() : ""); }

ToolEnvironment EmptyUsbBus::Environment() const { return OnBus(testbed_.Root()); }

}  // namespace ferrolt::test::usb
