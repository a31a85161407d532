// An in-process device behind the platform interface, for what the emulator
// cannot show deterministically: it records every block written, hands out
// the IN blocks a test queues, and can fail or withhold write completions.
// With it, a fixture: a DeviceAdmin on it, recording callbacks and standard
// output captured; teardown never waits without bound.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "admin/DeviceAdmin.h"
#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "platform/DeviceBackend.h"
#include "tests/support/RecordingCallbacks.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::test {

// Shared by the backend and every connection opened on it.
class FakeDevice : public std::enable_shared_from_this<FakeDevice> {
  // Runs f under the lock and returns what it returns.
  template <typename F>
  auto Locked(F f) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return f();
  }

 public:
  using WriteHook = std::function<bool(const Block&)>;

  std::unique_ptr<platform::DeviceBackend> Backend();

  void SetPresent(bool present) { Locked([&] { present_ = present; }); }
  void SetStallWrites(bool stall) { Locked([&] { stallWrites_ = stall; }); }
  // Called (on the writer's thread, without the lock) for each block before
  // its write ends; false fails the write.
  void OnWrite(WriteHook hook) { Locked([&] { onWrite_ = std::make_shared<WriteHook>(std::move(hook)); }); }

  // Queues one IN block (completing a read that waits for it).
  void Send(const Block& block) {
    std::shared_ptr<platform::Transfer> pending;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!pendingRead_) {
        inbound_.push_back(block);
        return;
      }
      pending = std::move(pendingRead_);
      takenBy_ = readsStarted_;
    }
    pending->Complete(true, block.data(), kBlockSize);
  }

  // Sends the block and returns once the reader has handled it (it has then
  // started its next read). False when that did not happen within bound.
  bool SendAndWaitHandled(const Block& block, std::chrono::milliseconds bound = std::chrono::milliseconds(3000)) {
    Send(block);
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, bound, [&] { return inbound_.empty() && readsStarted_ > takenBy_; });
  }

  std::vector<Block> Written() const { return Locked([&] { return written_; }); }
  int Opens() const { return Locked([&] { return opens_; }); }
  int Closes() const { return Locked([&] { return closes_; }); }

  // The connection's side.
  bool Open() {
    return Locked([&] {
      if (present_) ++opens_;
      return present_;
    });
  }
  bool Present() const { return Locked([&] { return present_; }); }
  void Close() {
    std::shared_ptr<platform::Transfer> pending = Locked([&] {
      ++closes_;
      return std::move(pendingRead_);
    });
    if (pending) pending->Complete(false, nullptr, 0);
  }
  std::shared_ptr<platform::Transfer> Write(const uint8_t* data, uint32_t length) {
    Block block{};
    std::memcpy(block.data(), data, std::min<size_t>(length, kBlockSize));
    bool stall = false;
    std::shared_ptr<WriteHook> hook = Locked([&] {
      written_.push_back(block);
      stall = stallWrites_;
      return onWrite_;
    });
    const bool ok = !hook || (*hook)(block);
    auto transfer = std::make_shared<platform::Transfer>(length);
    if (!stall) transfer->Complete(ok, nullptr, ok ? length : 0);
    return transfer;
  }
  std::shared_ptr<platform::Transfer> StartRead(uint32_t length) {
    auto transfer = std::make_shared<platform::Transfer>(length);
    std::unique_lock<std::mutex> lock(mutex_);
    ++readsStarted_;
    changed_.notify_all();
    if (inbound_.empty()) {
      pendingRead_ = transfer;
      return transfer;
    }
    const Block block = inbound_.front();
    inbound_.pop_front();
    takenBy_ = readsStarted_;
    lock.unlock();
    transfer->Complete(true, block.data(), kBlockSize);
    return transfer;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool present_ = true;
  bool stallWrites_ = false;
  int opens_ = 0;
  int closes_ = 0;
  std::vector<Block> written_;
  std::deque<Block> inbound_;
  std::shared_ptr<platform::Transfer> pendingRead_;
  std::shared_ptr<WriteHook> onWrite_;
  int readsStarted_ = 0;
  int takenBy_ = 0;  // the read that took the last IN block
};

class FakeConnection final : public platform::DeviceConnection {
 public:
  explicit FakeConnection(std::shared_ptr<FakeDevice> device) : device_(std::move(device)) {}
  ~FakeConnection() override { device_->Close(); }
  bool Initialize() override { return true; }
  bool QueryInterfaceSettings(uint8_t& endpointCount) override {
    endpointCount = 2;
    return true;
  }
  bool QueryPipe(uint8_t index, platform::PipeInfo& pipe) override {
    pipe = {platform::PipeType::Bulk, static_cast<uint8_t>(index == 0 ? 0x81 : 0x01), kBlockSize};
    return true;
  }
  bool QueryDeviceSpeed(uint8_t& speed, uint32_t&) override {
    speed = platform::kSpeedHigh;
    return true;
  }
  std::shared_ptr<platform::Transfer> StartWrite(uint8_t, const uint8_t* data, uint32_t length) override {
    return device_->Write(data, length);
  }
  std::shared_ptr<platform::Transfer> StartRead(uint8_t, uint32_t length) override {
    return device_->StartRead(length);
  }
  bool FlushPipe(uint8_t) override { return true; }

 private:
  std::shared_ptr<FakeDevice> device_;
};

class FakeBackend final : public platform::DeviceBackend {
 public:
  explicit FakeBackend(std::shared_ptr<FakeDevice> device) : device_(std::move(device)) {}
  platform::InterfaceListing ListInterfaces() override {
    platform::InterfaceListing listing;
    listing.listed = true;
    char path[64];
    std::snprintf(path, sizeof path, "\\\\?\\usb#vid_%04x&pid_%04x&mi_04#7&1a2b3c&0&0004", kVendorId, kProductId);
    if (device_->Present()) listing.paths.push_back(path);
    return listing;
  }
  std::unique_ptr<platform::DeviceConnection> Open(const std::string&) override {
    return device_->Open() ? std::make_unique<FakeConnection>(device_) : nullptr;
  }

 private:
  std::shared_ptr<FakeDevice> device_;
};

inline std::unique_ptr<platform::DeviceBackend> FakeDevice::Backend() {
  return std::make_unique<FakeBackend>(shared_from_this());
}

// A device packet with a correct CRC: type, length byte, payload bytes.
inline Block MakeDevicePacket(uint8_t type, uint8_t length, const std::string& payload) {
  Block block{};
  block[kTypeOffset] = type;
  block[kLengthOffset] = length;
  std::memcpy(block.data() + kPayloadOffset, payload.data(), std::min(payload.size(), kPayloadSize));
  block[kCrcOffset] = ComputeCrc8(block.data(), kCrcOffset);
  return block;
}

// Standard output captured into a file for the capture's lifetime, readable
// while it is being written.
class StdoutCapture {
 public:
  StdoutCapture() {
    const int fd = open(path_.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    std::fflush(stdout);
    dup2(fd, STDOUT_FILENO);
    close(fd);
  }
  ~StdoutCapture() {
    // A failing test's messages went into the capture too: show them.
    if (::testing::Test::HasFailure()) std::fprintf(stderr, "captured stdout:\n%s\n", Text().c_str());
    std::fflush(stdout);
    dup2(savedFd_, STDOUT_FILENO);
    close(savedFd_);
  }
  // Everything written so far.
  std::string Text() const {
    std::fflush(stdout);
    return ReadFile(path_);
  }

 private:
  TempDir dir_;
  fs::path path_ = dir_ / "stdout";
  int savedFd_ = dup(STDOUT_FILENO);
};

inline constexpr std::chrono::milliseconds kOperationBound{15000};
inline constexpr std::chrono::milliseconds kShutdownBound{5000};

// Polls until the operation has ended or the bound has passed.
inline bool OperationEnds(const DeviceAdmin& admin, std::chrono::milliseconds bound = kOperationBound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (admin.IsOperationRunning()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

class FakeDeviceFixture : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(admin.Shutdown(kShutdownBound)); }

  StdoutCapture out;
  std::shared_ptr<FakeDevice> device = std::make_shared<FakeDevice>();
  RecordingLog log;
  RecordingProgress progress;
  RecordingVersion version;
  DeviceAdmin admin{device->Backend()};
};

}  // namespace ferrolt::test
