#include "transfer/OperationContext.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"

namespace ferrolt {

bool OperationContext::Connect() const {
  if (link.ConnectDevice(kProductId, kVendorId, log)) return true;
  outcome.MarkLinkFailed();
  return false;
}

bool OperationContext::Reconnect() const {
  link.CloseDevice();
  std::this_thread::sleep_for(limits::kReconnectPause);
  if (Connect()) return true;
  ReportOpenFailure();
  return false;
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
    if (link.ReadPacketBlocking(block, kBlockSize, log) == 0) return true;
    std::this_thread::sleep_for(limits::kFailedReadPause);
  }
  return false;
}

void OperationContext::ReportDeviceSilence() const {
  if (log == nullptr) return;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limits::kDeviceSilenceLimit);
  log->LogMessageCallBack("Error: The device sent nothing usable for %d seconds. Giving up.",
                          static_cast<int>(seconds.count()));
}

void ReportOpenFailure() { std::printf("Failed to open device\n"); }

}  // namespace ferrolt
