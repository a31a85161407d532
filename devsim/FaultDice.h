// The draws of one random fault. Each fault has a generator of its own,
// seeded from --seed and the fault's name, so that a seed replays every
// choice and one fault's draws never shift another's. The generator and the
// way a draw is taken from it are fixed, so a seed means the same on every
// build.
#pragma once

#include <random>
#include <string>

#include "devsim/Service.h"

namespace ferrolt::devsim {

class FaultDice {
 public:
  // The chance is the fault's percentage in the plan (none when absent).
  FaultDice(const FaultPlan& plan, const std::string& name);
  // True, by the fault's chance, each time it is asked.
  bool Strikes();
  // A number within the range, both ends included.
  long long Within(NumberRange range);

 private:
  std::mt19937 generator_;
  long long chance_;  // hundredths of a percent
};

}  // namespace ferrolt::devsim
