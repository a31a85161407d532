// A DeviceAdmin on the in-process device, with recording callbacks and
// standard output captured; teardown never waits without bound. Behind the
// device stands nothing (the test answers by hand) or devsim's device.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "admin/DeviceAdmin.h"
#include "link/DevicePacket.h"
#include "tests/support/ExpectedLines.h"
#include "tests/support/InProcessDevice.h"
#include "tests/support/InProcessDevsim.h"
#include "tests/support/RecordingCallbacks.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::test {

// A device packet with a correct CRC: type, length byte, payload bytes, number.
inline Block MakeDevicePacket(uint8_t type, uint8_t length, const std::string& payload, uint32_t number = 0) {
  Block block{};
  block[kTypeOffset] = type;
  for (size_t i = 0; i < 4; ++i) block[kNumberOffset + i] = static_cast<uint8_t>(number >> (8 * i));
  block[kLengthOffset] = length;
  std::memcpy(block.data() + kPayloadOffset, payload.data(), std::min(payload.size(), kPayloadSize));
  block[kCrcOffset] = ComputeCrc8(block.data(), kCrcOffset);
  return block;
}

// Standard output (or error) captured into a file for the capture's
// lifetime, readable while it is being written.
template <int Fd>
class StreamCapture {
 public:
  StreamCapture() {
    const int fd = open(path_.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    Flush();
    dup2(fd, Fd);
    close(fd);
  }
  ~StreamCapture() {
    Flush();
    dup2(savedFd_, Fd);
    close(savedFd_);
    // A failing test's messages went into the capture too: show them.
    if (::testing::Test::HasFailure()) std::fprintf(stderr, "captured output:\n%s\n", ReadFile(path_).c_str());
  }
  // Everything written so far.
  std::string Text() const {
    Flush();
    return ReadFile(path_);
  }

 private:
  static void Flush() { std::fflush(Fd == STDOUT_FILENO ? stdout : stderr); }

  TempDir dir_;
  fs::path path_ = dir_ / "captured";
  int savedFd_ = dup(Fd);
};
using StdoutCapture = StreamCapture<STDOUT_FILENO>;
using StderrCapture = StreamCapture<STDERR_FILENO>;

inline constexpr std::chrono::milliseconds kOperationBound{15000};
inline constexpr std::chrono::milliseconds kShutdownBound{5000};
// Whole-file transfers of a MiB or more, under the sanitizers too.
inline constexpr std::chrono::milliseconds kTransferBound{60000};

// Polls until the condition holds; false when the bound passed first.
inline bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds bound = kOperationBound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

inline bool OperationEnds(const DeviceAdmin& admin, std::chrono::milliseconds bound = kOperationBound) {
  return WaitUntil([&] { return !admin.IsOperationRunning(); }, bound);
}

// Nothing behind the device: the test answers by hand.
class RawDeviceFixture : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(admin.Shutdown(kShutdownBound)); }

  StdoutCapture out;
  InProcessDevice device;
  RecordingLog log;
  RecordingProgress progress;
  RecordingVersion version;
  DeviceAdmin admin{std::make_unique<InProcessDevice>(device)};
};

// devsim's device behind it, its root folder with tmp/ and var/log/ made
// before Start so a test can put files on the device.
class DevsimFixture : public ::testing::Test {
 protected:
  // Each fault as ferrolt-devsim's --fault takes it: NAME or NAME=VALUE.
  void Start(const std::vector<std::string>& faults = {}) {
    devsim::DeviceSettings settings;
    settings.root = root;
    for (const std::string& fault : faults) {
      const size_t equals = fault.find('=');
      settings.faults.Add(fault.substr(0, equals), equals == std::string::npos ? "" : fault.substr(equals + 1));
    }
    auto logic = DevsimLogic(settings);
    ASSERT_NE(logic, nullptr);
    device = std::make_unique<InProcessDevice>(std::move(logic));
    admin = std::make_unique<DeviceAdmin>(std::make_unique<InProcessDevice>(*device));
  }
  void TearDown() override { EXPECT_TRUE(admin == nullptr || admin->Shutdown(kShutdownBound)); }

  // Launches one operation, waits (bounded) until it has ended and returns
  // what it printed on standard output.
  std::string Run(const std::function<int(DeviceAdmin&)>& launch) {
    const size_t before = out.Text().size();
    EXPECT_EQ(launch(*admin), 0);
    EXPECT_TRUE(OperationEnds(*admin, kTransferBound)) << "the operation did not end in time";
    return out.Text().substr(before);
  }
  // The OUT blocks of one packet type (byte 0).
  std::vector<Block> WrittenOfType(uint8_t type) const {
    std::vector<Block> blocks;
    for (const Block& block : device->Written())
      if (block[0] == type) blocks.push_back(block);
    return blocks;
  }

  StdoutCapture out;
  TempDir dir;
  fs::path root = [this] {
    fs::create_directories(dir / "root" / "tmp");
    fs::create_directories(dir / "root" / "var" / "log");
    return dir / "root";
  }();
  RecordingLog log;
  RecordingProgress progress;
  std::unique_ptr<InProcessDevice> device;
  std::unique_ptr<DeviceAdmin> admin;
};

}  // namespace ferrolt::test
