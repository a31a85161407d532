// A DeviceAdmin over the in-process fake device, with recording callbacks and
// standard output captured. Teardown never waits without bound.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "admin/DeviceAdmin.h"
#include "tests/admin/FakeDevice.h"
#include "tests/admin/StdoutCapture.h"
#include "tests/support/RecordingCallbacks.h"

namespace ferrolt::test {

inline constexpr std::chrono::milliseconds kOperationBound{15000};
inline constexpr std::chrono::milliseconds kShutdownBound{5000};

// Polls until the operation has ended or the bound has passed.
inline bool OperationEnds(const DeviceAdmin& admin, std::chrono::milliseconds bound = kOperationBound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (admin.IsOperationRunning()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class FakeDeviceFixture : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(admin.Shutdown(kShutdownBound)); }

  StdoutCapture out;
  FakeDevice device;
  RecordingLog log;
  RecordingProgress progress;
  RecordingVersion version;
  DeviceAdmin admin{device.Backend()};
};

}  // namespace ferrolt::test
