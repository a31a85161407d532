#include "platform/emulator/SocketEndpoint.h"

namespace ferrolt::platform {
namespace {

constexpr const char* kTcpPrefix = "tcp:";

}  // namespace

bool IsTcpEndpoint(const std::string& endpoint) {
  const std::string prefix = kTcpPrefix;
  return endpoint.compare(0, prefix.size(), prefix) == 0;
}

std::optional<TcpAddress> TcpAddressOf(const std::string& endpoint) {
  if (!IsTcpEndpoint(endpoint)) return std::nullopt;
  const std::string address = endpoint.substr(std::string(kTcpPrefix).size());
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == address.size()) return std::nullopt;
  TcpAddress out{address.substr(0, colon), address.substr(colon + 1)};
  if (out.host.size() >= 2 && out.host.front() == '[' && out.host.back() == ']')
    out.host = out.host.substr(1, out.host.size() - 2);
  return out;
}

}  // namespace ferrolt::platform
