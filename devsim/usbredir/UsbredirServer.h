// ferrolt-devsim's usbredir front: the device as a USB device for a virtual
// machine. It listens on a Unix socket or a TCP endpoint; a virtual machine
// (QEMU's usb-redir device, libvirt's <redirdev>) connects and sees the
// device plugged into its USB controller. One virtual machine at a time.
#pragma once

#include <memory>
#include <string>

#include "devsim/Device.h"
#include "devsim/Front.h"
#include "devsim/Listener.h"
#include "devsim/SocketServer.h"
#include "devsim/usbredir/UsbredirDevice.h"

namespace ferrolt::devsim {

class UsbredirServer final : public Front {
 public:
  // Null, with error set, when the hello settings have no USB form.
  static std::unique_ptr<UsbredirServer> Create(Device& device, const ServerSettings& settings, const FaultPlan& faults,
                                                std::string& error);

  // Front
  bool Listen(std::string& error) override { return listener_.Listen(error); }
  std::string Endpoint() const override { return listener_.Endpoint(); }
  void Serve() override;
  void RequestStop() override { listener_.RequestStop(); }

 private:
  UsbredirServer(Device& device, const ServerSettings& settings, const UsbDeviceModel& model, const UsbFaults& faults);

  Listener listener_;
  UsbredirDevice usb_;
};

}  // namespace ferrolt::devsim
