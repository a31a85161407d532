// The command line of ferrolt-devsim.
#pragma once

#include <string>
#include <vector>

#include "devsim/Device.h"
#include "devsim/SocketServer.h"

namespace ferrolt::devsim {

struct Options {
  DeviceSettings device;
  ServerSettings server;
  bool usbredir = false;  // the usbredir front serves the device, not the socket server
  // Lines for standard error: what the options leave open.
  std::vector<std::string> warnings;
};

enum class ParseOutcome { Run, Help, Error };

// args without the program name. On Error, error holds a one-line reason.
ParseOutcome ParseOptions(const std::vector<std::string>& args, Options& options, std::string& error);

// The --help text: every option and every fault the device knows.
std::string UsageText();

}  // namespace ferrolt::devsim
