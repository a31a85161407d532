#include "devsim/usbredir/UsbredirServer.h"

#include <unistd.h>

namespace ferrolt::devsim {
namespace {

constexpr uint8_t kHelloReady = 0;

}  // namespace

std::unique_ptr<UsbredirServer> UsbredirServer::Create(Device& device, const ServerSettings& settings,
                                                       const FaultPlan& faults, std::string& error) {
  UsbDeviceModel model;
  if (!ModelFromHello(settings.hello, model, error)) return nullptr;
  if (settings.hello.state != kHelloReady) {
    error = "state " + std::to_string(settings.hello.state) + " exists only on the emulator link";
    return nullptr;
  }
  return std::unique_ptr<UsbredirServer>(
      new UsbredirServer(device, settings, model, WithPlannedFaults(UsbFaults{}, faults)));
}

UsbredirServer::UsbredirServer(Device& device, const ServerSettings& settings, const UsbDeviceModel& model,
                               const UsbFaults& faults)
    : listener_(settings.address), usb_(device, model, faults) {}

void UsbredirServer::Serve() {
  while (!listener_.StopRequested()) {
    const int connection = listener_.Accept();
    if (connection < 0) continue;
    usb_.Serve(connection, listener_.WakeFd());
    close(connection);
  }
}

}  // namespace ferrolt::devsim
