// FERROLT_TRACE=FILE: every bulk transfer of the run, on whatever backend,
// recorded in FILE as a pcapng capture in the link type of Linux's usbmon,
// the device's descriptors first (capture/UsbCapture.h). Recorded at this
// seam, the capture covers the emulator link, libusb and WinUSB alike; the
// libusb connection records the transfers it hands libusb itself, since its
// reads are whole USB packets of several blocks.
#pragma once

#include <memory>

#include "capture/UsbCapture.h"
#include "platform/DeviceBackend.h"

namespace ferrolt::platform {

inline constexpr const char* kTraceVariable = "FERROLT_TRACE";

// A backend whose connections record their transfers in one capture; every
// other call goes to the wrapped backend unchanged.
class TracingBackend final : public DeviceBackend {
 public:
  TracingBackend(std::unique_ptr<DeviceBackend> inner, std::shared_ptr<capture::UsbCapture> capture);

  InterfaceListing ListInterfaces() override;
  std::vector<std::string> ListRegisteredInterfaces(const UsbInterfaceId& wanted) override;
  void HintNotFound(const UsbInterfaceId& wanted) override;
  std::string DescribeDevice(const std::string& path) override;
  std::optional<AttachedDevice> Identify(const std::string& path) override;
  std::unique_ptr<DeviceConnection> Open(const std::string& path) override;

 private:
  std::unique_ptr<DeviceBackend> inner_;
  std::shared_ptr<capture::UsbCapture> capture_;
};

// backend, recorded in the capture that FERROLT_TRACE names; backend itself
// when the variable is unset or empty, or when the capture cannot be written
// (which standard error says once).
std::unique_ptr<DeviceBackend> TracedWhenAsked(std::unique_ptr<DeviceBackend> backend);

}  // namespace ferrolt::platform
