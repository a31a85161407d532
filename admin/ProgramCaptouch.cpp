#include "admin/ProgramCaptouch.h"

#include <string>

#include "admin/SendCommandBlock.h"
#include "link/DevicePacket.h"

namespace ferrolt {

namespace {

constexpr size_t kRebootPadding = 55;

// "\rreboot\r", 55 spaces and the terminating zero: all 64 bytes.
Block RebootRequest() { return BuildRawTextBlock("\rreboot\r" + std::string(kRebootPadding, ' ')); }

}  // namespace

void ProgramCaptouch(const OperationContext& op) {
  SendCommandBlock(op, RebootRequest(), "Sent reboot message to device successfully.",
                   {.subject = "the reboot message", .failureLine = "Failed to send reboot message to device."});
}

}  // namespace ferrolt
