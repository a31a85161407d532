#include "tests/platform/ScriptedDevice.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "platform/emulator/SocketIo.h"

namespace ferrolt::test {
namespace {

constexpr int kPollSliceMs = 10;
constexpr size_t kFrameSize = 65;
constexpr int kBacklog = 4;

// Bounds a send to a host that has stopped reading.
constexpr std::chrono::milliseconds kSendWait{2000};

}  // namespace

ScriptedDevice::ScriptedDevice(ScriptOptions options) : options_(std::move(options)) {
  endpoint_ = (dir_ / "device.sock").string();
  listener_ = BindUnixSocket(endpoint_);
  if (::listen(listener_, kBacklog) != 0) throw std::runtime_error("cannot listen on " + endpoint_);
  server_ = std::thread([this] { Serve(); });
}

ScriptedDevice::~ScriptedDevice() {
  stop_ = true;
  server_.join();
  std::lock_guard<std::mutex> lock(mutex_);
  CloseClientLocked();
  ::close(listener_);
}

void ScriptedDevice::Serve() {
  while (!stop_) {
    int client = -1;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      client = options_.readsFrames ? client_ : -1;
    }
    pollfd fds[2] = {{listener_, POLLIN, 0}, {client, POLLIN, 0}};
    if (::poll(fds, 2, kPollSliceMs) <= 0) continue;
    if ((fds[0].revents & POLLIN) != 0) Accept();
    if (fds[1].revents != 0) ReadFromHost();
  }
}

void ScriptedDevice::Accept() {
  const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return;
  std::lock_guard<std::mutex> lock(mutex_);
  CloseClientLocked();
  client_ = fd;
  platform::SendAll(client_, options_.greeting.data(), options_.greeting.size(), kSendWait);
  if (options_.hangsUpAfterGreeting) CloseClientLocked();
}

void ScriptedDevice::ReadFromHost() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (client_ < 0) return;
  uint8_t buffer[4096];
  const ssize_t count = ::recv(client_, buffer, sizeof buffer, MSG_DONTWAIT);
  if (count <= 0) {
    if (count == 0) CloseClientLocked();
    return;
  }
  pending_.insert(pending_.end(), buffer, buffer + count);
  while (pending_.size() >= kFrameSize) {
    if (pending_[0] == kWireWrite) {
      Block block;
      std::memcpy(block.data(), pending_.data() + 1, block.size());
      writes_.push_back(block);
      if (acksWrites_) platform::SendAll(client_, &kWireAck, 1, kSendWait);
    }
    pending_.erase(pending_.begin(), pending_.begin() + kFrameSize);
  }
  wrote_.notify_all();
}

void ScriptedDevice::CloseClientLocked() {
  if (client_ >= 0) ::close(client_);
  client_ = -1;
  pending_.clear();
}

bool ScriptedDevice::WaitForWrites(size_t count, milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return wrote_.wait_for(lock, timeout, [&] { return writes_.size() >= count; });
}

std::vector<Block> ScriptedDevice::Writes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return writes_;
}

void ScriptedDevice::AckWrites(bool on) {
  std::lock_guard<std::mutex> lock(mutex_);
  acksWrites_ = on;
}

void ScriptedDevice::SendAck() { SendRaw({kWireAck}); }

void ScriptedDevice::SendBlock(const Block& block) {
  std::vector<uint8_t> frame{kWireRead};
  frame.insert(frame.end(), block.begin(), block.end());
  SendRaw(frame);
}

void ScriptedDevice::SendRaw(const std::vector<uint8_t>& bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (client_ >= 0) platform::SendAll(client_, bytes.data(), bytes.size(), kSendWait);
}

void ScriptedDevice::Hangup() {
  std::lock_guard<std::mutex> lock(mutex_);
  CloseClientLocked();
}

}  // namespace ferrolt::test
