#include "transfer/OperationContext.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"

namespace ferrolt {

bool OperationContext::Connect() const {
  if (link.ConnectDevice(kProductId, kVendorId, &log)) return true;
  outcome.MarkLinkFailed();
  return false;
}

bool OperationContext::Reconnect() const {
  link.CloseDevice();
  if (!PauseUnlessStopped(limits::kReconnectPause)) return false;
  if (Connect()) return true;
  ReportOpenFailure();
  return false;
}

bool OperationContext::PauseUnlessStopped(std::chrono::milliseconds pause) const {
  const auto end = std::chrono::steady_clock::now() + pause;
  for (auto now = std::chrono::steady_clock::now(); now < end; now = std::chrono::steady_clock::now()) {
    if (Stopped()) return false;
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(limits::kStopPoll, end - now));
  }
  return !Stopped();
}

void OperationContext::End() const {
  link.CloseDevice();
  running.exchange(false);
}

void OperationContext::EndDone() const {
  outcome.MarkDone();
  End();
}

bool OperationContext::ReadWithinSilenceLimit(uint8_t* block,
                                              std::chrono::steady_clock::time_point lastProgress) const {
  while (!TearingDown()) {
    if (std::chrono::steady_clock::now() - lastProgress >= limits::kDeviceSilenceLimit) {
      ReportDeviceSilence();
      return false;
    }
    if (link.ReadPacketBlocking(block, kBlockSize, &log) == 0) return true;
    std::this_thread::sleep_for(limits::kFailedReadPause);
  }
  return false;
}

void OperationContext::ReportDeviceSilence() const {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limits::kDeviceSilenceLimit);
  log.LogMessageCallBack("Error: The device sent nothing usable for %d seconds. Giving up.",
                         static_cast<int>(seconds.count()));
}

void OperationContext::ReportOpenFailure() const { console.Print("Failed to open device\n"); }

}  // namespace ferrolt
