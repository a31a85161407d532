#include "platform/emulator/SocketIo.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace ferrolt::platform {
namespace {

using std::chrono::milliseconds;

// Milliseconds left before the deadline, rounded up so a wait never ends early.
int RemainingMilliseconds(Deadline deadline) {
  const auto left = deadline - std::chrono::steady_clock::now();
  if (left <= Deadline::duration::zero()) return 0;
  return static_cast<int>(std::chrono::ceil<milliseconds>(left).count());
}

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

}  // namespace

void CloseSocket(SocketHandle socket) { ::close(socket); }

void ShutdownSocket(SocketHandle socket) { ::shutdown(socket, SHUT_RDWR); }

bool WaitReady(SocketHandle fd, short events, Deadline deadline) {
  for (;;) {
    pollfd entry{fd, events, 0};
    const int ready = ::poll(&entry, 1, RemainingMilliseconds(deadline));
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno != EINTR) return false;
  }
}

bool ReceiveBefore(SocketHandle fd, uint8_t* data, size_t size, Deadline deadline) {
  size_t received = 0;
  while (received < size) {
    if (!WaitReady(fd, POLLIN, deadline)) return false;
    const ssize_t count = ::recv(fd, data + received, size - received, MSG_DONTWAIT);
    if (count > 0) {
      received += static_cast<size_t>(count);
    } else if (count == 0 || (errno != EINTR && !WouldBlock(errno))) {
      return false;
    }
  }
  return true;
}

// The shutdown that goes with stop wakes a receive already blocked.
size_t ReceiveSome(SocketHandle fd, uint8_t* data, size_t capacity, const Event& stop) {
  for (;;) {
    if (stop.IsSet()) return 0;
    const ssize_t count = ::recv(fd, data, capacity, 0);
    if (count > 0) return static_cast<size_t>(count);
    if (count == 0 || errno != EINTR) return 0;
  }
}

bool SendAll(SocketHandle fd, const uint8_t* data, size_t size, milliseconds wait) {
  const Deadline deadline = std::chrono::steady_clock::now() + wait;
  size_t sent = 0;
  while (sent < size) {
    const ssize_t count = ::send(fd, data + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count > 0) {
      sent += static_cast<size_t>(count);
    } else if (count < 0 && WouldBlock(errno)) {
      if (!WaitReady(fd, POLLOUT, deadline)) return false;
    } else if (count == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace ferrolt::platform
