// What the transfer tests share: a DeviceAdmin, with recording callbacks, on
// the emulator link to a running ferrolt-devsim whose root the test fills.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
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

// A device root folder made before the emulator starts, so a test can put
// files on the device.
inline fs::path MakeRoot(const TempDir& dir) {
  const fs::path root = dir / "root";
  fs::create_directories(root / "tmp");
  fs::create_directories(root / "var" / "log");
  return root;
}

inline std::vector<std::string> FaultArgs(const std::vector<std::string>& faults) {
  std::vector<std::string> args;
  for (const auto& fault : faults) {
    args.push_back("--fault");
    args.push_back(fault);
  }
  return args;
}

class TransferHarness {
 public:
  static constexpr std::chrono::milliseconds kRunLimit{60000};
  static constexpr std::chrono::milliseconds kPollStep{10};
  static constexpr std::chrono::milliseconds kShutdownBound{5000};

  TransferHarness(const fs::path& root, const std::vector<std::string>& faults)
      : server(FaultArgs(faults), root), admin(platform::CreateEmulatorBackend(server.Endpoint())) {}
  ~TransferHarness() { admin.Shutdown(kShutdownBound); }

  // Launches one operation, waits (bounded) until it has ended and returns
  // what it printed on standard output.
  std::string Run(const std::function<int(DeviceAdmin&)>& launch) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(launch(admin), 0);
    EXPECT_TRUE(WaitUntilIdle(kRunLimit)) << "the operation did not end in time";
    return testing::internal::GetCapturedStdout();
  }

  bool WaitUntilIdle(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (admin.IsOperationRunning()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(kPollStep);
    }
    return true;
  }

  // The OUT blocks of one packet type (byte 0).
  std::vector<Block> ReceivedOfType(uint8_t type) const {
    std::vector<Block> blocks;
    for (const Block& block : server.Received()) {
      if (block[0] == type) blocks.push_back(block);
    }
    return blocks;
  }

  DevsimServer server;
  DeviceAdmin admin;
  RecordingLog log;
  RecordingProgress progress;
};

}  // namespace ferrolt::test
