#include "devsim/SocketServer.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "devsim/DeviceLimits.h"
#include "devsim/FrameReader.h"

namespace ferrolt::devsim {
namespace {

constexpr char kHelloFrame = 'H';
constexpr char kCompletionFrame = 'A';
constexpr char kReadFrame = 'R';

using Clock = Device::Clock;
using std::chrono::milliseconds;

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

int MillisecondsUntil(Clock::time_point when) {
  return static_cast<int>(std::max(milliseconds(0), std::chrono::ceil<milliseconds>(when - Clock::now())).count());
}

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

std::array<uint8_t, 8> LinkHello::Encode() const {
  return {static_cast<uint8_t>(kHelloFrame),
          static_cast<uint8_t>(vendorId & 0xFF),
          static_cast<uint8_t>(vendorId >> 8),
          static_cast<uint8_t>(productId & 0xFF),
          static_cast<uint8_t>(productId >> 8),
          interfaceNumber,
          speed,
          state};
}

SocketServer::SocketServer(Device& device, const ServerSettings& settings) : device_(device), settings_(settings) {
  if (pipe2(wakeFds_, O_CLOEXEC | O_NONBLOCK) != 0) wakeFds_[0] = wakeFds_[1] = -1;
}

SocketServer::~SocketServer() {
  if (listenFd_ >= 0) {
    close(listenFd_);
    if (!settings_.socketPath.empty()) unlink(settings_.socketPath.c_str());
  }
  for (int fd : wakeFds_) {
    if (fd >= 0) close(fd);
  }
}

bool SocketServer::Listen(std::string& error) {
  if (wakeFds_[0] < 0) {
    error = Errno("cannot create the wake pipe");
    return false;
  }
  return settings_.socketPath.empty() ? ListenTcp(error) : ListenUnix(error);
}

bool SocketServer::ListenUnix(std::string& error) {
  const std::string& path = settings_.socketPath;
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

bool SocketServer::ListenTcp(std::string& error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(settings_.tcpPort);
  if (const int failure = getaddrinfo(settings_.tcpHost.c_str(), port.c_str(), &hints, &found); failure != 0) {
    error = "cannot resolve " + settings_.tcpHost + ": " + gai_strerror(failure);
    return false;
  }
  error = "cannot listen on " + settings_.tcpHost + ":" + port;
  for (addrinfo* candidate = found; candidate != nullptr && listenFd_ < 0; candidate = candidate->ai_next) {
    const int fd = socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC, candidate->ai_protocol);
    if (fd < 0) continue;
    const int yes = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (bind(fd, candidate->ai_addr, candidate->ai_addrlen) == 0 && listen(fd, limits::kListenBacklog) == 0) {
      listenFd_ = fd;
    } else {
      error = Errno("cannot listen on " + settings_.tcpHost + ":" + port);
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

std::string SocketServer::Endpoint() const {
  if (!settings_.socketPath.empty()) return settings_.socketPath;
  return "tcp:" + settings_.tcpHost + ":" + std::to_string(boundPort_);
}

void SocketServer::RequestStop() {
  const char wake = 1;
  if (wakeFds_[1] >= 0) {
    const ssize_t ignored = write(wakeFds_[1], &wake, 1);
    (void)ignored;
  }
}

bool SocketServer::StopRequested() const {
  pollfd wake{wakeFds_[0], POLLIN, 0};
  return poll(&wake, 1, 0) > 0;
}

void SocketServer::Serve() {
  while (!StopRequested()) {
    const int connection = AcceptHost();
    if (connection >= 0) ServeLink(connection);
  }
}

int SocketServer::AcceptHost() {
  pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
  if (poll(fds, 2, -1) <= 0 || (fds[1].revents & POLLIN) != 0) return -1;
  return accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
}

void SocketServer::ServeLink(int connection) {
  const auto hello = settings_.hello.Encode();
  device_.OnLinkOpened();
  bool open = SendAll(connection, reinterpret_cast<const char*>(hello.data()), hello.size());
  FrameReader frames;
  auto idleDeadline = Clock::now() + settings_.idleLimit;
  while (open) {
    pollfd fds[2] = {{connection, POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
    const int ready = poll(fds, 2, PollTimeoutMs(idleDeadline));
    if (ready < 0 && errno != EINTR) break;
    if (ready > 0 && (fds[1].revents & POLLIN) != 0) break;
    // A running command is work in hand, even while it prints nothing.
    bool moved = device_.Busy();
    if (ready > 0 && fds[0].revents != 0 && !ReadFrames(connection, frames, moved)) break;
    device_.Poll();
    open = SendDue(connection, moved) && !device_.DropRequested();
    if (moved) {
      idleDeadline = Clock::now() + settings_.idleLimit;
    } else if (Clock::now() >= idleDeadline) {
      device_.Note("link: idle for " + std::to_string(settings_.idleLimit.count()) + " s, dropping it");
      break;
    }
  }
  device_.OnLinkClosed();
  close(connection);
}

bool SocketServer::ReadFrames(int connection, FrameReader& frames, bool& moved) {
  char buffer[limits::kSocketReadChunk];
  const ssize_t got = recv(connection, buffer, sizeof buffer, MSG_DONTWAIT);
  if (got == 0) return false;
  if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  frames.Append(buffer, static_cast<size_t>(got));
  Block block;
  // Blocks after a drop decision never reach the device.
  while (!device_.DropRequested()) {
    const FrameReader::Next next = frames.Take(block);
    if (next == FrameReader::Next::NeedMore) break;
    if (next == FrameReader::Next::BadFrame) {
      device_.Note("link: unknown frame byte from the host, closing the link");
      return false;
    }
    device_.OnOutBlock(block);
    // Only whole blocks count: a host that trickles bytes is still idle.
    moved = true;
  }
  return true;
}

bool SocketServer::SendDue(int connection, bool& moved) {
  std::string frames(device_.TakeDueCompletions(), kCompletionFrame);
  while (const auto block = device_.PopInBlock()) {
    frames += kReadFrame;
    frames.append(reinterpret_cast<const char*>(block->data()), block->size());
  }
  if (frames.empty()) return true;
  moved = true;
  return SendAll(connection, frames.data(), frames.size());
}

bool SocketServer::SendAll(int connection, const char* data, size_t size) {
  auto deadline = Clock::now() + settings_.idleLimit;
  while (size > 0) {
    const ssize_t sent = send(connection, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      data += sent;
      size -= static_cast<size_t>(sent);
      deadline = Clock::now() + settings_.idleLimit;
      continue;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
    if (Clock::now() >= deadline) {
      device_.Note("link: the host has read nothing for " + std::to_string(settings_.idleLimit.count()) +
                   " s, dropping it");
      return false;
    }
    pollfd fds[2] = {{connection, POLLOUT, 0}, {wakeFds_[0], POLLIN, 0}};
    if (poll(fds, 2, MillisecondsUntil(deadline)) > 0 && (fds[1].revents & POLLIN) != 0) return false;
  }
  return true;
}

int SocketServer::PollTimeoutMs(Clock::time_point idleDeadline) const {
  Clock::time_point wake = idleDeadline;
  if (device_.Busy()) wake = std::min(wake, Clock::now() + limits::kBusyPollInterval);
  if (const auto due = device_.NextDue()) wake = std::min(wake, *due);
  return MillisecondsUntil(wake);
}

}  // namespace ferrolt::devsim
