#include "app/ExitStatus.h"

#include <cstdlib>
#include <cstring>

namespace ferrolt {

bool ExitStatusWanted() {
  const char* value = std::getenv(kExitStatusVariable);
  return value != nullptr && std::strcmp(value, "1") == 0;
}

}  // namespace ferrolt
