// A link over the in-memory device, with its cancel event and a recording log.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "link/DeviceIds.h"
#include "link/UsbLink.h"
#include "platform/Event.h"
#include "tests/support/InProcessDevice.h"
#include "tests/support/RecordingCallbacks.h"

namespace ferrolt::test {

class LinkFixture : public ::testing::Test {
 protected:
  // Opens the link on the fake device; the speed line it prints is swallowed.
  void OpenLink() {
    ::testing::internal::CaptureStdout();
    const bool opened = link.ConnectDevice(kProductId, kVendorId, &log);
    ::testing::internal::GetCapturedStdout();
    ASSERT_TRUE(opened);
  }

  InProcessDevice backend;
  platform::Event cancel;
  UsbLink link{backend, cancel};
  RecordingLog log;
};

// Milliseconds that a call took.
template <typename Call>
std::chrono::milliseconds Timed(Call&& call) {
  const auto start = std::chrono::steady_clock::now();
  call();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

}  // namespace ferrolt::test
