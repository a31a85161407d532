#include "devsim/SocketServer.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "devsim/DeviceLimits.h"

namespace ferrolt::devsim {
namespace {

constexpr char kHelloFrame = 'H';
constexpr char kWriteFrame = 'W';
constexpr char kCompletionFrame = 'A';
constexpr char kReadFrame = 'R';
constexpr size_t kBlockSize = 64;
constexpr size_t kWriteFrameSize = 1 + kBlockSize;

// Sends every byte; false when the host has gone or a stop was requested.
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

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

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
  bool open = SendAll(connection, reinterpret_cast<const char*>(hello.data()), hello.size(), wakeFds_[0]);
  std::string pending;
  while (open) {
    pollfd fds[2] = {{connection, POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
    const int ready = poll(fds, 2, PollTimeoutMs());
    if (ready < 0 && errno != EINTR) break;
    if (ready > 0 && (fds[1].revents & POLLIN) != 0) break;
    if (ready > 0 && fds[0].revents != 0 && !ReadFrames(connection, pending)) break;
    device_.Poll();
    open = SendDue(connection) && !device_.DropRequested();
  }
  device_.OnLinkClosed();
  close(connection);
}

bool SocketServer::ReadFrames(int connection, std::string& pending) {
  char buffer[limits::kSocketReadChunk];
  const ssize_t got = recv(connection, buffer, sizeof buffer, MSG_DONTWAIT);
  if (got == 0) return false;
  if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  pending.append(buffer, static_cast<size_t>(got));
  size_t used = 0;
  // Blocks after a drop decision never reached the device.
  while (pending.size() - used >= 1 && !device_.DropRequested()) {
    if (pending[used] != kWriteFrame) {
      device_.Note("link: unknown frame byte from the host, closing the link");
      return false;
    }
    if (pending.size() - used < kWriteFrameSize) break;
    Block block;
    std::memcpy(block.data(), pending.data() + used + 1, kBlockSize);
    used += kWriteFrameSize;
    device_.OnOutBlock(block);
  }
  pending.erase(0, used);
  return true;
}

bool SocketServer::SendDue(int connection) {
  std::string frames(device_.TakeDueCompletions(), kCompletionFrame);
  while (const auto block = device_.PopInBlock()) {
    frames += kReadFrame;
    frames.append(reinterpret_cast<const char*>(block->data()), block->size());
  }
  return frames.empty() || SendAll(connection, frames.data(), frames.size(), wakeFds_[0]);
}

int SocketServer::PollTimeoutMs() const {
  using std::chrono::milliseconds;
  std::optional<milliseconds> wait;
  if (device_.Busy()) wait = limits::kBusyPollInterval;
  if (const auto due = device_.NextDue()) {
    const auto untilDue = std::max(milliseconds(0), std::chrono::ceil<milliseconds>(*due - Device::Clock::now()));
    if (!wait || untilDue < *wait) wait = untilDue;
  }
  return wait ? static_cast<int>(wait->count()) : -1;
}

}  // namespace ferrolt::devsim
