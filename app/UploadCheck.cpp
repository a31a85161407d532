#include "app/UploadCheck.h"

#include <cstdlib>
#include <cstring>

namespace ferrolt {

bool UploadCheckWanted() {
  const char* value = std::getenv(kUploadCheckVariable);
  return value != nullptr && std::strcmp(value, "1") == 0;
}

}  // namespace ferrolt
