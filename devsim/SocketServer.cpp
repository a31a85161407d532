#include "devsim/SocketServer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
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
  bool open = SendAll(connection, reinterpret_cast<const char*>(hello.data()), hello.size(), listener_.WakeFd());
  std::string pending;
  while (open) {
    pollfd fds[2] = {{connection, POLLIN, 0}, {listener_.WakeFd(), POLLIN, 0}};
    const auto wait = device_.TimeUntilNeeded();
    const int ready = poll(fds, 2, wait ? static_cast<int>(wait->count()) : -1);
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
  return frames.empty() || SendAll(connection, frames.data(), frames.size(), listener_.WakeFd());
}

}  // namespace ferrolt::devsim
