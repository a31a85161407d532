// Captouch programming: the device reprograms its touch controller when it
// receives the plain-text reboot request.
#include <string>

#include "admin/DeviceAdmin.h"
#include "link/DevicePacket.h"

namespace ferrolt {

namespace {

constexpr size_t kRebootPadding = 55;

// "\rreboot\r", 55 spaces and the terminating zero: all 64 bytes.
Block RebootRequest() { return BuildRawTextBlock("\rreboot\r" + std::string(kRebootPadding, ' ')); }

}  // namespace

void DeviceAdmin::ProgramCaptouch(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  const Block request = RebootRequest();
  SendCommandBlock(request.data(), "Sent reboot message to device successfully.",
                   "Failed to send reboot message to device.", "the reboot message", progress, log);
}

}  // namespace ferrolt
