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
  // The end report said the upgrade failed.
  std::atomic<bool> ReportedFailure{false};
};

// Runs until a status text containing "ending" or "Failed" arrives (setting
// ReaderDone), or until ReaderDone or stop is found set. NACK reports and
// CRC lines go to the link's console.
void ReadResponses(UsbLink& link, ReaderState& state, const std::atomic<bool>& stop, ILogMessageCallBack& log);

}  // namespace ferrolt
