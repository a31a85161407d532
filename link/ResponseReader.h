// The loop that collects the device's answers while an upgrade streams:
// NACKs for the sender, status texts for the log, and the end report.
#pragma once

#include <atomic>
#include <cstdint>

#include "link/Callbacks.h"
#include "link/UsbLink.h"

namespace ferrolt {

// No refusal pending.
inline constexpr uint32_t kNoNack = 0xFFFFFFFF;

struct ReaderState {
  std::atomic<uint32_t> NackedPacketNumber{kNoNack};
  std::atomic<bool> ReaderDone{false};
  // Set at process teardown: the reader stops at its next pass.
  std::atomic<bool> StopRequested{false};
};

// Runs until a status text containing "ending" or "Failed" arrives (setting
// ReaderDone), or until ReaderDone or StopRequested is found set.
void ReadResponses(UsbLink& link, ReaderState& state, ILogMessageCallBack* log);

}  // namespace ferrolt
