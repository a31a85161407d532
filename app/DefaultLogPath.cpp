#include "app/DefaultLogPath.h"

#include "platform/LocalTime.h"

namespace ferrolt {

std::string DefaultLogName(const std::tm& localTime) {
  char name[kLogNameBufferSize] = {};
  std::strftime(name, sizeof name, kLogNameFormat, &localTime);
  return name;
}

std::string DefaultLogName(std::time_t when) { return DefaultLogName(platform::LocalTime(when)); }

}  // namespace ferrolt
