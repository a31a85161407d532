// A DeviceAdmin on the in-memory device, with recording callbacks and
// standard output captured; teardown never waits without bound.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "admin/DeviceAdmin.h"
#include "link/DevicePacket.h"
#include "tests/support/FakeBackend.h"
#include "tests/support/RecordingCallbacks.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::test {

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
  FakeBackend device;
  RecordingLog log;
  RecordingProgress progress;
  RecordingVersion version;
  DeviceAdmin admin{std::make_unique<FakeBackend>(device)};
};

}  // namespace ferrolt::test
