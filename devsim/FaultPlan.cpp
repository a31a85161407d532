#include <cstdlib>
#include <sstream>

#include "devsim/Service.h"

namespace ferrolt::devsim {
bool ParseNumber(const std::string& text, long long& value) {
  if (text.empty()) return false;
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  char* end = nullptr;
  value = std::strtoll(text.c_str(), &end, hex ? 16 : 10);
  return end != nullptr && *end == '\0';
}

bool ParsePercent(const std::string& text, long long& hundredths) {
  constexpr size_t kMaxWholeDigits = 3;  // "100"
  constexpr size_t kDecimals = 2;
  constexpr long long kPerPercent = 100;
  constexpr long long kCertain = 100 * kPerPercent;
  const auto digits = [](const std::string& part, size_t most) {
    return !part.empty() && part.size() <= most && part.find_first_not_of("0123456789") == std::string::npos;
  };
  const size_t point = text.find('.');
  const std::string whole = text.substr(0, point);
  std::string decimals = point == std::string::npos ? "0" : text.substr(point + 1);
  if (!digits(whole, kMaxWholeDigits) || !digits(decimals, kDecimals)) return false;
  decimals.resize(kDecimals, '0');
  hundredths = std::stoll(whole) * kPerPercent + std::stoll(decimals);
  return hundredths <= kCertain;
}

bool ParseRange(const std::string& text, long long& low, long long& high) {
  const size_t dash = text.find('-');
  return dash != std::string::npos && ParseNumber(text.substr(0, dash), low) &&
         ParseNumber(text.substr(dash + 1), high) && low >= 0 && low <= high;
}

void FaultPlan::Add(const std::string& name, const std::string& value) { faults_.emplace_back(name, value); }

bool FaultPlan::Has(const std::string& name) const {
  for (const auto& fault : faults_) {
    if (fault.first == name) return true;
  }
  return false;
}

// The last occurrence wins, so a later option overrides an earlier one.
std::string FaultPlan::Text(const std::string& name, const std::string& fallback) const {
  for (auto it = faults_.rbegin(); it != faults_.rend(); ++it) {
    if (it->first == name) return it->second;
  }
  return fallback;
}

long long FaultPlan::Number(const std::string& name, long long fallback) const {
  long long value = 0;
  return Has(name) && ParseNumber(Text(name), value) ? value : fallback;
}

std::vector<long long> FaultPlan::Numbers(const std::string& name) const {
  std::vector<long long> numbers;
  std::istringstream list(Text(name));
  std::string item;
  while (std::getline(list, item, ',')) {
    long long value = 0;
    if (ParseNumber(item, value)) numbers.push_back(value);
  }
  return numbers;
}

NumberRange FaultPlan::Range(const std::string& name, NumberRange fallback) const {
  NumberRange range;
  return Has(name) && ParseRange(Text(name), range.low, range.high) ? range : fallback;
}

long long FaultPlan::Chance(const std::string& name) const {
  long long hundredths = 0;
  return Has(name) && ParsePercent(Text(name), hundredths) ? hundredths : 0;
}

}  // namespace ferrolt::devsim
