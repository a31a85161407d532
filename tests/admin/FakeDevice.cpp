#include "tests/admin/FakeDevice.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "link/DeviceIds.h"
#include "link/DevicePacket.h"

namespace ferrolt::test {

namespace {

constexpr uint8_t kInPipe = 0x81;
constexpr uint8_t kOutPipe = 0x01;

class FakeConnection : public platform::DeviceConnection {
 public:
  explicit FakeConnection(std::shared_ptr<FakeDeviceState> state) : state_(std::move(state)) {}
  ~FakeConnection() override {
    std::shared_ptr<platform::Transfer> pending;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      ++state_->closes;
      pending = std::move(state_->pendingRead);
    }
    if (pending) pending->Complete(false, nullptr, 0);
  }
  bool Initialize() override { return true; }
  bool QueryInterfaceSettings(uint8_t& endpointCount) override {
    endpointCount = 2;
    return true;
  }
  bool QueryPipe(uint8_t endpointIndex, platform::PipeInfo& pipe) override {
    pipe.type = platform::PipeType::Bulk;
    pipe.pipeId = endpointIndex == 0 ? kInPipe : kOutPipe;
    pipe.maximumPacketSize = 64;
    return true;
  }
  bool QueryDeviceSpeed(uint8_t& speed, uint32_t&) override {
    speed = platform::kSpeedHigh;
    return true;
  }
  std::shared_ptr<platform::Transfer> StartWrite(uint8_t, const uint8_t* data, uint32_t length) override {
    DeviceBlock block{};
    std::memcpy(block.data(), data, std::min<size_t>(length, block.size()));
    std::function<void(const DeviceBlock&)> hook;
    bool stall = false;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      state_->written.push_back(block);
      hook = state_->onWrite;
      stall = state_->stallWrites;
    }
    if (hook) hook(block);
    auto transfer = std::make_shared<platform::Transfer>(length);
    if (!stall) transfer->Complete(true, nullptr, length);
    return transfer;
  }
  std::shared_ptr<platform::Transfer> StartRead(uint8_t, uint32_t length) override {
    auto transfer = std::make_shared<platform::Transfer>(length);
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (state_->inQueue.empty()) {
      state_->pendingRead = transfer;
    } else {
      transfer->Complete(true, state_->inQueue.front().data(), 64);
      state_->inQueue.erase(state_->inQueue.begin());
    }
    return transfer;
  }
  bool FlushPipe(uint8_t) override { return true; }

 private:
  std::shared_ptr<FakeDeviceState> state_;
};

class FakeBackend : public platform::DeviceBackend {
 public:
  explicit FakeBackend(std::shared_ptr<FakeDeviceState> state) : state_(std::move(state)) {}
  platform::InterfaceListing ListInterfaces() override {
    platform::InterfaceListing listing;
    listing.listed = true;
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (state_->present) listing.paths.push_back(DevicePath());
    return listing;
  }
  std::unique_ptr<platform::DeviceConnection> Open(const std::string&) override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (!state_->present) return nullptr;
    ++state_->opens;
    return std::make_unique<FakeConnection>(state_);
  }

 private:
  static std::string DevicePath() {
    char path[128];
    std::snprintf(path, sizeof path, "\\\\?\\usb#vid_%04x&pid_%04x&mi_04#7&1a2b3c&0&0004", kVendorId, kProductId);
    return path;
  }
  std::shared_ptr<FakeDeviceState> state_;
};

}  // namespace

FakeDevice::FakeDevice() : state_(std::make_shared<FakeDeviceState>()) {}

std::unique_ptr<platform::DeviceBackend> FakeDevice::Backend() const { return std::make_unique<FakeBackend>(state_); }

void FakeDevice::SetPresent(bool present) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->present = present;
}

void FakeDevice::SetStallWrites(bool stall) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->stallWrites = stall;
}

void FakeDevice::OnWrite(std::function<void(const DeviceBlock&)> hook) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->onWrite = std::move(hook);
}

void FakeDevice::Send(const DeviceBlock& block) {
  std::shared_ptr<platform::Transfer> pending;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (state_->pendingRead) {
      pending = std::move(state_->pendingRead);
    } else {
      state_->inQueue.push_back(block);
    }
  }
  if (pending) pending->Complete(true, block.data(), 64);
}

std::vector<DeviceBlock> FakeDevice::Written() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->written;
}

int FakeDevice::Opens() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->opens;
}

int FakeDevice::Closes() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->closes;
}

DeviceBlock MakeDevicePacket(uint8_t type, uint8_t length, const std::string& payload) {
  DeviceBlock block{};
  block[0] = type;
  block[5] = length;
  std::memcpy(block.data() + 6, payload.data(), std::min<size_t>(payload.size(), 57));
  block[63] = ComputeCrc8(block.data(), 63);
  return block;
}

}  // namespace ferrolt::test
