// The device's decision, per OUT block, on when the host sees the transfer
// complete and whether the link drops. Kept in the device rather than in a
// transport so every transport fails the same way.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "devsim/FaultDice.h"
#include "devsim/Service.h"

namespace ferrolt::devsim {

struct WriteFate {
  enum class Kind { Complete, Withhold, DropLink };
  Kind kind = Kind::Complete;
  // For Complete: how long after the block arrived the completion is due.
  std::chrono::milliseconds delay{0};
};

class LinkFaults {
 public:
  explicit LinkFaults(const FaultPlan& faults);
  // A new host link: block counts start again.
  void Reset() { outBlocks_ = 0; }
  // The fate of the next OUT block on the current link.
  WriteFate NextOutBlock();
  // How long the next IN block is held back before the host may take it:
  // the fixed delay, and a random part of its own when replies jitter.
  std::chrono::milliseconds NextReplyDelay();
  bool RepliesJitter() const { return jitter_.high > 0; }
  // After an OUT block, by the random stall's chance: how long the device,
  // busy, takes no further OUT block.
  std::optional<std::chrono::milliseconds> NextBusySpell();

 private:
  bool stallAll_;
  long long stallAfter_;  // negative: no limit
  long long dropAfter_;   // negative: never
  std::chrono::milliseconds writeDelay_;
  std::chrono::milliseconds replyDelay_;
  NumberRange jitter_;
  FaultDice jitterDice_;
  NumberRange busyFor_;
  FaultDice busyDice_;
  long long outBlocks_ = 0;
};

}  // namespace ferrolt::devsim
