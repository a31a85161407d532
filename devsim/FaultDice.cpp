#include "devsim/FaultDice.h"

#include <cstdint>

namespace ferrolt::devsim {
namespace {

constexpr long long kCertain = 100 * 100;  // hundredths of a percent

// FNV-1a: a fixed hash of the fault's name, unlike std::hash.
uint32_t NameHash(const std::string& name) {
  constexpr uint32_t kOffsetBasis = 2166136261u;
  constexpr uint32_t kPrime = 16777619u;
  uint32_t hash = kOffsetBasis;
  for (const char c : name) hash = (hash ^ static_cast<uint8_t>(c)) * kPrime;
  return hash;
}

std::mt19937 SeededFor(unsigned seed, const std::string& name) {
  std::seed_seq sequence{seed, NameHash(name)};
  return std::mt19937(sequence);
}

}  // namespace

FaultDice::FaultDice(const FaultPlan& plan, const std::string& name)
    : generator_(SeededFor(plan.Seed(), name)), chance_(plan.Chance(name)) {}

bool FaultDice::Strikes() { return chance_ > 0 && static_cast<long long>(generator_() % kCertain) < chance_; }

// A plain remainder rather than std::uniform_int_distribution, whose draws
// differ between standard libraries; its slight bias does not matter here.
long long FaultDice::Within(NumberRange range) {
  const auto span = static_cast<unsigned long long>(range.high - range.low) + 1;
  return range.low + static_cast<long long>(generator_() % span);
}

}  // namespace ferrolt::devsim
