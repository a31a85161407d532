// What the transfer tests share: a DeviceAdmin, with recording callbacks, on
// the emulator link to a running ferrolt-devsim whose root the test fills.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "admin/DeviceAdmin.h"
#include "platform/emulator/EmulatorBackend.h"
#include "tests/support/RecordingCallbacks.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::test {

// What opening the link prints for the emulated high-speed device.
inline const std::string kSpeedLine = "Device speed: 3 (High speed).\n";

// Polls until the condition holds; false when limit passed first.
inline bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

struct TransferHarness {
  static std::vector<std::string> FaultArgs(const std::vector<std::string>& faults) {
    std::vector<std::string> args;
    for (const auto& fault : faults) args.insert(args.end(), {"--fault", fault});
    return args;
  }

  TransferHarness(const fs::path& root, const std::vector<std::string>& faults)
      : server(FaultArgs(faults), root), admin(platform::CreateEmulatorBackend(server.Endpoint())) {}
  ~TransferHarness() { admin.Shutdown(std::chrono::milliseconds(5000)); }

  // Launches one operation, waits (bounded) until it has ended and returns
  // what it printed on standard output.
  std::string Run(const std::function<int(DeviceAdmin&)>& launch) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(launch(admin), 0);
    EXPECT_TRUE(WaitUntil([&] { return !admin.IsOperationRunning(); }, std::chrono::milliseconds(60000)))
        << "the operation did not end in time";
    return testing::internal::GetCapturedStdout();
  }

  // The OUT blocks of one packet type (byte 0).
  std::vector<Block> ReceivedOfType(uint8_t type) const {
    std::vector<Block> blocks;
    for (const Block& block : server.Received())
      if (block[0] == type) blocks.push_back(block);
    return blocks;
  }

  DevsimServer server;
  DeviceAdmin admin;
  RecordingLog log;
  RecordingProgress progress;
};

// A device root with tmp/ and var/log/, made before the emulator starts so a
// test can put files on the device; Start then runs the emulator on it.
class TransferTest : public testing::Test {
 protected:
  void Start(const std::vector<std::string>& faults = {}) {
    harness = std::make_unique<TransferHarness>(root, faults);
    ASSERT_TRUE(harness->server.Running());
  }

  TempDir dir;
  fs::path root = [this] {
    fs::create_directories(dir / "root" / "tmp");
    fs::create_directories(dir / "root" / "var" / "log");
    return dir / "root";
  }();
  std::unique_ptr<TransferHarness> harness;
};

}  // namespace ferrolt::test
