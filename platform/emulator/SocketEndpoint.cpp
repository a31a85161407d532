#include "platform/emulator/SocketEndpoint.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace ferrolt::platform {
namespace {

constexpr const char* kTcpPrefix = "tcp:";

struct HostAndPort {
  std::string host;
  std::string port;
};

bool SplitHostAndPort(const std::string& address, HostAndPort& out) {
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == address.size()) return false;
  out.host = address.substr(0, colon);
  out.port = address.substr(colon + 1);
  if (out.host.size() >= 2 && out.host.front() == '[' && out.host.back() == ']')
    out.host = out.host.substr(1, out.host.size() - 2);
  return true;
}

// Small frames one at a time: without this, Nagle's algorithm and delayed
// acknowledgements would hold every block back.
void DisableCoalescing(int fd) {
  int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool MakeBlocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  return flags >= 0 && ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

// Connects without blocking past the deadline, then hands the socket back in
// blocking mode.
UniqueFd ConnectAddress(int family, const sockaddr* address, socklen_t length, Deadline deadline) {
  UniqueFd socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.Valid()) return {};
  if (::connect(socket.Get(), address, length) != 0) {
    if (errno != EINPROGRESS) return {};
    if (!WaitReady(socket.Get(), POLLOUT, deadline)) return {};
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) return {};
  }
  if (!MakeBlocking(socket.Get())) return {};
  if (family != AF_UNIX) DisableCoalescing(socket.Get());
  return socket;
}

UniqueFd ConnectTcp(const std::string& address, Deadline deadline) {
  HostAndPort target;
  if (!SplitHostAndPort(address, target)) return {};
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(target.host.c_str(), target.port.c_str(), &hints, &found) != 0) return {};
  UniqueFd socket;
  for (const addrinfo* entry = found; entry != nullptr && !socket.Valid(); entry = entry->ai_next)
    socket = ConnectAddress(entry->ai_family, entry->ai_addr, entry->ai_addrlen, deadline);
  ::freeaddrinfo(found);
  return socket;
}

UniqueFd ConnectUnix(const std::string& path, Deadline deadline) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return {};
  std::memcpy(address.sun_path, path.data(), path.size());
  return ConnectAddress(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), sizeof address, deadline);
}

}  // namespace

UniqueFd ConnectEndpoint(const std::string& endpoint, Deadline deadline) {
  const std::string prefix = kTcpPrefix;
  if (endpoint.compare(0, prefix.size(), prefix) == 0) return ConnectTcp(endpoint.substr(prefix.size()), deadline);
  return ConnectUnix(endpoint, deadline);
}

}  // namespace ferrolt::platform
