// ferrolt-devsim: the device emulator program. Parses the command line,
// prepares the device, listens, and serves host links until SIGTERM or SIGINT.
#include <signal.h>

#include <cstdio>
#include <iostream>
#include <memory>

#include "devsim/Device.h"
#include "devsim/Options.h"
#include "devsim/SocketServer.h"
#ifdef FERROLT_DEVSIM_USBREDIR
#include "devsim/usbredir/UsbredirServer.h"
#endif

namespace {

constexpr int kExitBadOptions = 2;
constexpr int kExitCannotStart = 1;

ferrolt::devsim::Front* g_server = nullptr;

void OnStopSignal(int) {
  if (g_server != nullptr) g_server->RequestStop();
}

// No SA_RESTART: a blocked send or poll returns, so the stop is seen at once.
void InstallStopHandlers() {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
}

int Fail(const std::string& reason, int status) {
  std::cerr << "ferrolt-devsim: " << reason << '\n';
  return status;
}

// The front the options name; null, with error set, when it cannot be built.
std::unique_ptr<ferrolt::devsim::Front> CreateFront(ferrolt::devsim::Device& device,
                                                    const ferrolt::devsim::Options& options, std::string& error) {
  using namespace ferrolt::devsim;
  if (!options.usbredir) return std::make_unique<SocketServer>(device, options.server);
#ifdef FERROLT_DEVSIM_USBREDIR
  return UsbredirServer::Create(device, options.server, options.device.faults, error);
#else
  error = "this build has no usbredir front (libusbredirparser was not found)";
  return nullptr;
#endif
}

}  // namespace

int main(int argc, char** argv) {
  using namespace ferrolt::devsim;
  Options options;
  std::string error;
  switch (ParseOptions(std::vector<std::string>(argv + 1, argv + argc), options, error)) {
    case ParseOutcome::Help:
      std::cout << UsageText();
      return 0;
    case ParseOutcome::Error:
      return Fail(error + " (see --help)", kExitBadOptions);
    case ParseOutcome::Run:
      break;
  }
  for (const std::string& warning : options.warnings) std::cerr << "ferrolt-devsim: " << warning << '\n';
  const auto device = Device::Create(options.device, error);
  if (device == nullptr) return Fail(error, kExitCannotStart);
  const auto server = CreateFront(*device, options, error);
  if (server == nullptr) return Fail(error, kExitBadOptions);
  if (!server->Listen(error)) return Fail(error, kExitCannotStart);
  g_server = server.get();
  InstallStopHandlers();
  std::printf("ferrolt-devsim: listening on %s\n", server->Endpoint().c_str());
  std::fflush(stdout);
  server->Serve();
  g_server = nullptr;
  return 0;
}
