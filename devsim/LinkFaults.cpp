#include "devsim/LinkFaults.h"

namespace ferrolt::devsim {

LinkFaults::LinkFaults(const FaultPlan& faults)
    : stallAll_(faults.Has("stall-writes")),
      stallAfter_(faults.Number("stall-writes-after", -1)),
      dropAfter_(faults.Number("drop-after", -1)),
      writeDelay_(faults.Number("delay-writes", 0)),
      replyDelay_(faults.Number("delay-replies", 0)) {}

WriteFate LinkFaults::NextOutBlock() {
  ++outBlocks_;
  if (dropAfter_ >= 0 && outBlocks_ >= dropAfter_) return {WriteFate::Kind::DropLink, {}};
  if (stallAll_ || (stallAfter_ >= 0 && outBlocks_ > stallAfter_)) return {WriteFate::Kind::Withhold, {}};
  return {WriteFate::Kind::Complete, writeDelay_};
}

}  // namespace ferrolt::devsim
