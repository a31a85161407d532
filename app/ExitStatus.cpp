#include "app/ExitStatus.h"

#include <cstdlib>
#include <cstring>

namespace ferrolt {

bool ExitStatusWanted() {
  const char* value = std::getenv(kExitStatusVariable);
  return value != nullptr && std::strcmp(value, "1") == 0;
}

int ExitStatusOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::Done:
      return kStatusDone;
    case Outcome::DeviceNotFound:
      return kStatusDeviceNotFound;
    case Outcome::Refused:
      return kStatusRefused;
    case Outcome::Incomplete:
      return kStatusIncomplete;
    case Outcome::Cancelled:
      return kStatusCancelled;
    case Outcome::Failed:
      break;
  }
  return kStatusFailed;
}

}  // namespace ferrolt
