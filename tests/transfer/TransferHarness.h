// What the transfer tests share: recording callbacks, and a DeviceAdmin on
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
#include "tests/support/TestSupport.h"

namespace ferrolt::test {

class RecordingLog final : public ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string format, ...) override {
    char text[4096];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format.c_str(), args);
    va_end(args);
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(text);
  }
  std::vector<std::string> Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  size_t CountStartingWith(const std::string& prefix) const {
    const auto lines = Lines();
    return static_cast<size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const std::string& line) { return line.rfind(prefix, 0) == 0; }));
  }
  bool Has(const std::string& line) const {
    const auto lines = Lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class RecordingProgress final : public IProgressChangeCallBack {
 public:
  void ProgressChangeCallBack(int percent) override {
    std::lock_guard<std::mutex> lock(mutex_);
    reports_.push_back(percent);
  }
  std::vector<int> Reports() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reports_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<int> reports_;
};

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
