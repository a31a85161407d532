#include "devsim/LinkFaults.h"

#include "devsim/DeviceLimits.h"

namespace ferrolt::devsim {

namespace {
constexpr char kJitter[] = "jitter-replies";
constexpr char kBusyChance[] = "stall-writes-random";
}  // namespace

LinkFaults::LinkFaults(const FaultPlan& faults)
    : stallAll_(faults.Has("stall-writes")),
      stallAfter_(faults.Number("stall-writes-after", -1)),
      dropAfter_(faults.Number("drop-after", -1)),
      writeDelay_(faults.Number("delay-writes", 0)),
      replyDelay_(faults.Number("delay-replies", 0)),
      jitter_(faults.Range(kJitter, {})),
      jitterDice_(faults, kJitter),
      busyFor_(faults.Range("stall-writes-for", limits::kDefaultRandomStall)),
      busyDice_(faults, kBusyChance) {}

WriteFate LinkFaults::NextOutBlock() {
  ++outBlocks_;
  if (dropAfter_ >= 0 && outBlocks_ >= dropAfter_) return {WriteFate::Kind::DropLink, {}};
  if (stallAll_ || (stallAfter_ >= 0 && outBlocks_ > stallAfter_)) return {WriteFate::Kind::Withhold, {}};
  return {WriteFate::Kind::Complete, writeDelay_};
}

std::chrono::milliseconds LinkFaults::NextReplyDelay() {
  if (!RepliesJitter()) return replyDelay_;
  return replyDelay_ + std::chrono::milliseconds(jitterDice_.Within(jitter_));
}

std::optional<std::chrono::milliseconds> LinkFaults::NextBusySpell() {
  if (!busyDice_.Strikes()) return std::nullopt;
  return std::chrono::milliseconds(busyDice_.Within(busyFor_));
}

}  // namespace ferrolt::devsim
