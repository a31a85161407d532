// What an end-to-end run is made of: the device, on the transport that
// FERROLT_E2E_TRANSPORT names, and the tool, started as FERROLT_E2E_TOOL says.
//   FERROLT_E2E_TRANSPORT  unix (default): ferrolt-devsim on a Unix socket
//                          tcp: ferrolt-devsim on a loopback TCP port
//                          usb: the same device on an emulated USB bus
//                               (umockdev), reached by the libusb backend
//   FERROLT_E2E_TOOL       the command that starts the tool, words separated
//                          by spaces (a launcher first if one is needed);
//                          default: the built ferrolt
// The same cases run over every transport with the same expectations.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/DeviceUnderTest.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::test {

enum class Transport { UnixSocket, Tcp, Usb };

Transport SelectedTransport();

// The device on the selected transport. devsimArgs are ferrolt-devsim's
// options (faults, seed, hello); root is the device's folder (empty: fresh).
std::unique_ptr<DeviceUnderTest> StartDevice(std::vector<std::string> devsimArgs = {}, const fs::path& root = {});
// A place on the selected transport where no device is.
std::unique_ptr<DeviceUnderTest> StartNoDevice();

// The tool, with args and the variables env sets, in the device's reach.
ProcessResult RunFerrolt(const std::vector<std::string>& args, const DeviceUnderTest& device, const fs::path& cwd,
                         milliseconds timeout = milliseconds(60000),
                         std::vector<std::pair<std::string, std::string>> env = {});
std::unique_ptr<Subprocess> StartFerrolt(const std::vector<std::string>& args, const DeviceUnderTest& device,
                                         const fs::path& cwd);
// The tool as options say, with the device's environment added.
ProcessResult RunFerrolt(ProcessOptions options, const DeviceUnderTest& device);

}  // namespace ferrolt::test
