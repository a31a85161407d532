#include "devsim/SocketServer.h"

#include <poll.h>
#include <sys/socket.h>
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

int MillisecondsUntil(Clock::time_point when) {
  return static_cast<int>(std::max(milliseconds(0), std::chrono::ceil<milliseconds>(when - Clock::now())).count());
}

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

SocketServer::SocketServer(Device& device, const ServerSettings& settings)
    : device_(device), settings_(settings), listener_(settings.address) {}

void SocketServer::Serve() {
  while (!listener_.StopRequested()) {
    const int connection = listener_.Accept();
    if (connection >= 0) ServeLink(connection);
  }
}

void SocketServer::ServeLink(int connection) {
  const auto hello = settings_.hello.Encode();
  device_.OnLinkOpened();
  bool open = SendWithinIdleLimit(connection, reinterpret_cast<const char*>(hello.data()), hello.size());
  FrameReader frames;
  auto idleDeadline = Clock::now() + settings_.idleLimit;
  while (open) {
    pollfd fds[2] = {{connection, POLLIN, 0}, {listener_.WakeFd(), POLLIN, 0}};
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
  return SendWithinIdleLimit(connection, frames.data(), frames.size());
}

bool SocketServer::SendWithinIdleLimit(int connection, const char* data, size_t size) {
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
    pollfd fds[2] = {{connection, POLLOUT, 0}, {listener_.WakeFd(), POLLIN, 0}};
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
