#include "devsim/UsbFaults.h"

namespace ferrolt::devsim {

UsbFaults WithPlannedFaults(UsbFaults faults, const FaultPlan& plan) {
  faults.stallOutAt = plan.Number("stall-out", faults.stallOutAt);
  faults.unplugAtOut = plan.Number("unplug-at-out", faults.unplugAtOut);
  faults.blockPerPacket = faults.blockPerPacket || plan.Has("block-per-packet");
  if (plan.Has("replug-after")) faults.replugAfter = std::chrono::milliseconds(plan.Number("replug-after", 0));
  return faults;
}

}  // namespace ferrolt::devsim
