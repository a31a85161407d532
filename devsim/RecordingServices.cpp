// Host texts the device only records: the reliability test's start and end,
// the touch-controller reboot request and the cancel packet. What the
// firmware would do with them is outside the emulator; the event log shows
// that they arrived.
#include <string>

#include "devsim/CommandServices.h"
#include "devsim/DevicePackets.h"

namespace ferrolt::devsim {
namespace {

constexpr size_t kRebootPadding = 55;

class OrtService final : public Service {
 public:
  bool Accept(const Block& block, DeviceContext& device) override {
    if (TypeOf(block) != kTypeOrt || !CrcMatches(block)) return false;
    device.Note("ort: " + PayloadText(block));
    return true;
  }
};

class CaptouchService final : public Service {
 public:
  bool Accept(const Block& block, DeviceContext& device) override {
    static const std::string kRebootText = "\rreboot\r" + std::string(kRebootPadding, ' ');
    if (RawText(block) != kRebootText) return false;
    device.Note("captouch reboot");
    return true;
  }
};

class CancelService final : public Service {
 public:
  bool Accept(const Block& block, DeviceContext& device) override {
    if (TypeOf(block) != kTypeCancel || !CrcMatches(block) || PayloadText(block) != "Cancel") return false;
    device.Note("cancel");
    return true;
  }
};

}  // namespace

std::unique_ptr<Service> CreateOrtService() { return std::make_unique<OrtService>(); }
std::unique_ptr<Service> CreateCaptouchService() { return std::make_unique<CaptouchService>(); }
std::unique_ptr<Service> CreateCancelService() { return std::make_unique<CancelService>(); }

}  // namespace ferrolt::devsim
