// Answers "Version Retrieval" with the version held in the root folder.
#include "devsim/CommandServices.h"
#include "devsim/DevicePackets.h"

namespace ferrolt::devsim {
namespace {

constexpr const char* kRequestText = "Version Retrieval";

class VersionService final : public Service {
 public:
  bool Accept(const Block& block, DeviceContext& device) override {
    if (TypeOf(block) != kTypeVersion || !CrcMatches(block) || PayloadText(block) != kRequestText) return false;
    const FaultPlan& faults = device.Faults();
    if (faults.Has("silent-version")) {
      device.Note("version request (fault: no reply)");
      return true;
    }
    const auto replyType = static_cast<uint8_t>(faults.Number("version-reply-type", kTypeVersion));
    Block reply = MakeTextPacket(replyType, device.Version());
    if (faults.Has("corrupt-version-crc")) CorruptCrc(reply);
    device.Send(reply);
    device.Note("version request: replied " + device.Version());
    return true;
  }
};

}  // namespace

std::unique_ptr<Service> CreateVersionService() { return std::make_unique<VersionService>(); }

}  // namespace ferrolt::devsim
