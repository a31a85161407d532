#include "tests/support/InProcessDevsim.h"

#include <algorithm>
#include <string>

#include "devsim/DeviceLimits.h"

namespace ferrolt::test {
namespace {

class Devsim final : public DeviceLogic {
 public:
  explicit Devsim(std::unique_ptr<devsim::Device> device) : device_(std::move(device)) {}

  void LinkOpened() override { device_->OnLinkOpened(); }
  void LinkClosed() override { device_->OnLinkClosed(); }
  bool TakesOutBlocks() const override { return device_->TakesOutBlocks(); }
  void OutBlock(const DeviceBlock& block) override { device_->OnOutBlock(block); }
  size_t Poll() override {
    device_->Poll();
    return device_->TakeDueCompletions();
  }
  std::optional<DeviceBlock> PopInBlock() override { return device_->PopInBlock(); }
  std::optional<Clock::time_point> NextDue() const override {
    auto due = device_->NextDue();
    // A service streaming output works as time passes, as the socket server lets it.
    if (device_->Busy()) {
      const auto soon = Clock::now() + devsim::limits::kBusyPollInterval;
      due = due ? std::min(*due, soon) : soon;
    }
    return due;
  }
  bool DroppedLink() const override { return device_->DropRequested(); }

 private:
  std::unique_ptr<devsim::Device> device_;
};

}  // namespace

std::unique_ptr<DeviceLogic> DevsimLogic(const devsim::DeviceSettings& settings) {
  std::string error;
  auto device = devsim::Device::Create(settings, error);
  if (!device) return nullptr;
  return std::make_unique<Devsim>(std::move(device));
}

}  // namespace ferrolt::test
