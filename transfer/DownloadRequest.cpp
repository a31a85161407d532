#include <cstdio>
#include <string>

#include "admin/DeviceAdmin.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "transfer/Reports.h"

namespace ferrolt {

bool DeviceAdmin::SendDownloadRequest(const uint8_t* request, const char* subject, ILogMessageCallBack* log) {
  for (int round = 0;; ++round) {
    if (Link.WritePacket(request, kBlockSize, log) == TransferStatus::Done) return true;
    if (round == limits::kMaxReconnectRounds) {
      LogText(log, std::string("Error: The ") + subject + " request could not be sent after " +
                       std::to_string(limits::kMaxReconnectRounds) + " reconnects; " + subject + " stopped.");
      return false;
    }
    if (!Reconnect(log)) {
      std::printf("Failed to open device\n");
      return false;
    }
  }
}

}  // namespace ferrolt
