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

}  // namespace ferrolt::devsim
