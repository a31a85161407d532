#include "platform/LocalTime.h"

namespace ferrolt::platform {

// std::localtime shares one result between threads; each system has its own
// reentrant form.
std::tm LocalTime(std::time_t when) {
  std::tm local{};
#ifdef _WIN32
  localtime_s(&local, &when);
#else
  localtime_r(&when, &local);
#endif
  return local;
}

}  // namespace ferrolt::platform
