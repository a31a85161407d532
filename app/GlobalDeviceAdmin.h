// The one DeviceAdmin of the process. It is built before the entry routine
// runs and its link is closed at process exit.
#pragma once

#include "admin/DeviceAdmin.h"

namespace ferrolt {

DeviceAdmin& GlobalDeviceAdmin();

}  // namespace ferrolt
