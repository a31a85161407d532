#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "platform/emulator/SocketEndpoint.h"

namespace ferrolt::platform {
namespace {

// Small frames one at a time: without this, Nagle's algorithm and delayed
// acknowledgements would hold every block back.
void DisableCoalescing(int fd) {
  int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

UniqueSocket Failed(int error, std::string& failure) {
  failure = std::strerror(error);
  return {};
}

bool MakeBlocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  return flags >= 0 && ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

// Connects without blocking past the deadline, then hands the socket back in
// blocking mode. On failure, failure says why in the system's words.
UniqueSocket ConnectAddress(int family, const sockaddr* address, socklen_t length, Deadline deadline,
                            std::string& failure) {
  UniqueSocket socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.Valid()) return Failed(errno, failure);
  if (::connect(socket.Get(), address, length) != 0) {
    if (errno != EINPROGRESS) return Failed(errno, failure);
    if (!WaitReady(socket.Get(), POLLOUT, deadline)) return Failed(ETIMEDOUT, failure);
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) return Failed(errno, failure);
    if (error != 0) return Failed(error, failure);
  }
  if (!MakeBlocking(socket.Get())) return Failed(errno, failure);
  if (family != AF_UNIX) DisableCoalescing(socket.Get());
  return socket;
}

UniqueSocket ConnectTcp(const std::string& endpoint, Deadline deadline, std::string& failure) {
  const std::optional<TcpAddress> target = TcpAddressOf(endpoint);
  if (!target) {
    failure = kNotAnAddress;
    return {};
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int resolved = ::getaddrinfo(target->host.c_str(), target->port.c_str(), &hints, &found);
  if (resolved != 0) {
    failure = ::gai_strerror(resolved);
    return {};
  }
  UniqueSocket socket;
  for (const addrinfo* entry = found; entry != nullptr && !socket.Valid(); entry = entry->ai_next)
    socket = ConnectAddress(entry->ai_family, entry->ai_addr, entry->ai_addrlen, deadline, failure);
  ::freeaddrinfo(found);
  return socket;
}

UniqueSocket ConnectUnix(const std::string& path, Deadline deadline, std::string& failure) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty()) return Failed(ENOENT, failure);
  if (path.size() >= sizeof address.sun_path) return Failed(ENAMETOOLONG, failure);
  std::memcpy(address.sun_path, path.data(), path.size());
  return ConnectAddress(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), sizeof address, deadline, failure);
}

}  // namespace

UniqueSocket ConnectEndpoint(const std::string& endpoint, Deadline deadline, std::string& failure) {
  if (IsTcpEndpoint(endpoint)) return ConnectTcp(endpoint, deadline, failure);
  return ConnectUnix(endpoint, deadline, failure);
}

}  // namespace ferrolt::platform
