#include "devsim/Listener.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "devsim/DeviceLimits.h"

namespace ferrolt::devsim {
namespace {

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

bool IsLoopback(const sockaddr* address) {
  if (address->sa_family == AF_INET) {
    return (ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr) >> 24) == IN_LOOPBACKNET;
  }
  if (address->sa_family != AF_INET6) return false;
  const in6_addr& ip = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
  return IN6_IS_ADDR_LOOPBACK(&ip) || (IN6_IS_ADDR_V4MAPPED(&ip) && ip.s6_addr[12] == IN_LOOPBACKNET);
}

// Someone accepts connections on the socket file: it is not stale.
bool SocketServed(const sockaddr_un& address) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return false;
  // A full backlog (EAGAIN) still has a listener behind it.
  const bool served = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN;
  close(fd);
  return served;
}

}  // namespace

bool IsLoopbackHost(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return false;
  bool loopback = true;
  for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) loopback &= IsLoopback(entry->ai_addr);
  freeaddrinfo(found);
  return loopback;
}


bool SendAll(int fd, const char* data, size_t size, int wakeFd) {
  while (size > 0) {
    const ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
    if (sent < 0) {
      pollfd wake{wakeFd, POLLIN, 0};
      if (errno == EINTR && poll(&wake, 1, 0) == 0) continue;
      return false;
    }
    data += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

Listener::Listener(const ListenAddress& address) : address_(address) {
  if (pipe2(wakeFds_, O_CLOEXEC | O_NONBLOCK) != 0) wakeFds_[0] = wakeFds_[1] = -1;
}

Listener::~Listener() {
  if (listenFd_ >= 0) {
    close(listenFd_);
    if (!address_.socketPath.empty()) unlink(address_.socketPath.c_str());
  }
  for (int fd : wakeFds_) {
    if (fd >= 0) close(fd);
  }
}

bool Listener::Listen(std::string& error) {
  if (wakeFds_[0] < 0) {
    error = Errno("cannot create the wake pipe");
    return false;
  }
  return address_.socketPath.empty() ? ListenTcp(error) : ListenUnix(error);
}

bool Listener::ListenUnix(std::string& error) {
  const std::string& path = address_.socketPath;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    error = "socket path too long: " + path;
    return false;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  struct stat existing {};
  if (lstat(path.c_str(), &existing) == 0) {
    // A socket left by an earlier run is stale; anything else is not ours to delete.
    if (!S_ISSOCK(existing.st_mode)) {
      error = path + " exists and is not a socket";
      return false;
    }
    if (SocketServed(address)) {
      error = path + " is served by another program";
      return false;
    }
    unlink(path.c_str());
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd, limits::kListenBacklog) != 0) {
    error = Errno("cannot listen on " + path);
    if (fd >= 0) close(fd);
    return false;
  }
  listenFd_ = fd;
  return true;
}

bool Listener::ListenTcp(std::string& error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(address_.tcpPort);
  if (const int failure = getaddrinfo(address_.tcpHost.c_str(), port.c_str(), &hints, &found); failure != 0) {
    error = "cannot resolve " + address_.tcpHost + ": " + gai_strerror(failure);
    return false;
  }
  error = "cannot listen on " + address_.tcpHost + ":" + port;
  for (addrinfo* candidate = found; candidate != nullptr && listenFd_ < 0; candidate = candidate->ai_next) {
    const int fd = socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC, candidate->ai_protocol);
    if (fd < 0) continue;
    const int yes = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (bind(fd, candidate->ai_addr, candidate->ai_addrlen) == 0 && listen(fd, limits::kListenBacklog) == 0) {
      listenFd_ = fd;
    } else {
      error = Errno("cannot listen on " + address_.tcpHost + ":" + port);
      close(fd);
    }
  }
  freeaddrinfo(found);
  if (listenFd_ < 0) return false;
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  getsockname(listenFd_, reinterpret_cast<sockaddr*>(&bound), &length);
  boundPort_ = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                                 : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
  error.clear();
  return true;
}

std::string Listener::Endpoint() const {
  if (!address_.socketPath.empty()) return address_.socketPath;
  return "tcp:" + address_.tcpHost + ":" + std::to_string(boundPort_);
}

void Listener::RequestStop() {
  const char wake = 1;
  if (wakeFds_[1] >= 0) {
    const ssize_t ignored = write(wakeFds_[1], &wake, 1);
    (void)ignored;
  }
}

bool Listener::StopRequested() const {
  pollfd wake{wakeFds_[0], POLLIN, 0};
  return poll(&wake, 1, 0) > 0;
}

int Listener::Accept() {
  pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
  if (poll(fds, 2, -1) <= 0 || (fds[1].revents & POLLIN) != 0) return -1;
  const int connection = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
  // Every exchange is a few small messages, each awaited: Nagle's wait on
  // them would cost every exchange a round trip.
  const int yes = 1;
  if (connection >= 0 && address_.socketPath.empty())
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  return connection;
}

}  // namespace ferrolt::devsim
