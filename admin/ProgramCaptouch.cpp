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
  const Block request = RebootRequest();
  SendCommandBlock(op, request.data(), "Sent reboot message to device successfully.",
                   "Failed to send reboot message to device.", "the reboot message");
}

}  // namespace ferrolt
