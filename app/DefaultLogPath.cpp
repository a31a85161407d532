#include "app/DefaultLogPath.h"

namespace ferrolt {

namespace {

std::tm ToLocalTime(std::time_t when) {
  std::tm local{};
#ifdef _WIN32
  localtime_s(&local, &when);
#else
  localtime_r(&when, &local);
#endif
  return local;
}

}  // namespace

std::string DefaultLogName(const std::tm& localTime) {
  char name[kLogNameBufferSize] = {};
  std::strftime(name, sizeof name, kLogNameFormat, &localTime);
  return name;
}

std::string DefaultLogName(std::time_t when) { return DefaultLogName(ToLocalTime(when)); }

}  // namespace ferrolt
