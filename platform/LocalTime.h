// The calendar time on the user's clock.
#pragma once

#include <ctime>

namespace ferrolt::platform {

// when in the local time zone; safe to call from any thread.
std::tm LocalTime(std::time_t when);

}  // namespace ferrolt::platform
