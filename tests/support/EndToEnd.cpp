#include "tests/support/EndToEnd.h"

#include <cstdlib>
#include <sstream>
#include <stdexcept>

#ifdef FERROLT_TEST_USB
#include "tests/usb/EmulatedUsbDevice.h"
#endif

namespace ferrolt::test {
namespace {

constexpr const char* kTransportVariable = "FERROLT_E2E_TRANSPORT";
constexpr const char* kToolVariable = "FERROLT_E2E_TOOL";

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// An emulator endpoint where no device listens.
class NoEmulatorDevice final : public DeviceUnderTest {
 public:
  explicit NoEmulatorDevice(Transport transport)
      : endpoint_(transport == Transport::Tcp ? "tcp:127.0.0.1:" + std::to_string(FreeTcpPort())
                                              : (dir_ / "missing.sock").string()) {}
  bool Running() const override { return true; }
  ToolEnvironment Environment() const override { return {{{"FERROLT_EMULATOR", endpoint_}}, {}}; }
  const fs::path& Root() const override { return dir_.Path(); }
  std::vector<Block> Received() const override { return {}; }
  std::string Events() const override { return {}; }
  void Stop() override {}

 private:
  TempDir dir_;
  std::string endpoint_;
};

std::vector<std::string> ToolCommand() {
  std::istringstream words(Variable(kToolVariable));
  std::vector<std::string> command;
  for (std::string word; words >> word;) command.push_back(word);
  if (command.empty()) command.push_back(FERROLT_BIN);
  return command;
}

// options with the tool's command in front of its arguments and the device's
// environment added; returns the program to start.
std::string ForTool(ProcessOptions& options, const DeviceUnderTest& device) {
  std::vector<std::string> command = ToolCommand();
  options.args.insert(options.args.begin(), command.begin() + 1, command.end());
  const ToolEnvironment environment = device.Environment();
  options.unsetEnv.insert(options.unsetEnv.end(), environment.unset.begin(), environment.unset.end());
  // The device's variables come first: the test's own override them.
  options.env.insert(options.env.begin(), environment.set.begin(), environment.set.end());
  return command.front();
}

}  // namespace

Transport SelectedTransport() {
  const std::string name = Variable(kTransportVariable);
  if (name.empty() || name == "unix") return Transport::UnixSocket;
  if (name == "tcp") return Transport::Tcp;
  if (name == "usb") return Transport::Usb;
  throw std::runtime_error(std::string(kTransportVariable) + " names no transport: " + name);
}

std::unique_ptr<DeviceUnderTest> StartDevice(std::vector<std::string> devsimArgs, const fs::path& root) {
  switch (SelectedTransport()) {
    case Transport::UnixSocket:
      return std::make_unique<DevsimServer>(std::move(devsimArgs), root, DevsimEndpoint::UnixSocket);
    case Transport::Tcp:
      return std::make_unique<DevsimServer>(std::move(devsimArgs), root, DevsimEndpoint::Tcp);
    case Transport::Usb:
      break;
  }
#ifdef FERROLT_TEST_USB
  return std::make_unique<usb::EmulatedUsbDevice>(usb::UsbDeviceOptions{std::move(devsimArgs), root, {}});
#else
  throw std::runtime_error("this build has no emulated USB bus (umockdev)");
#endif
}

std::unique_ptr<DeviceUnderTest> StartNoDevice() {
  const Transport transport = SelectedTransport();
  if (transport != Transport::Usb) return std::make_unique<NoEmulatorDevice>(transport);
#ifdef FERROLT_TEST_USB
  return std::make_unique<usb::EmptyUsbBus>();
#else
  throw std::runtime_error("this build has no emulated USB bus (umockdev)");
#endif
}

ProcessResult RunFerrolt(ProcessOptions options, const DeviceUnderTest& device) {
  const std::string program = ForTool(options, device);
  return RunProcess(program, options);
}

ProcessResult RunFerrolt(const std::vector<std::string>& args, const DeviceUnderTest& device, const fs::path& cwd,
                         milliseconds timeout, std::vector<std::pair<std::string, std::string>> env) {
  ProcessOptions options;
  options.args = args;
  options.cwd = cwd;
  options.timeout = timeout;
  options.env = std::move(env);
  return RunFerrolt(options, device);
}

std::unique_ptr<Subprocess> StartFerrolt(const std::vector<std::string>& args, const DeviceUnderTest& device,
                                         const fs::path& cwd) {
  ProcessOptions options;
  options.args = args;
  options.cwd = cwd;
  const std::string program = ForTool(options, device);
  return std::make_unique<Subprocess>(program, options);
}

}  // namespace ferrolt::test
