// devsim's device logic behind an InProcessDevice: the whole device (its
// services, root folder and faults) with no socket between it and the link.
#pragma once

#include <memory>

#include "devsim/Device.h"
#include "tests/support/InProcessDevice.h"

namespace ferrolt::test {

// Null when the device cannot be made (its root folder cannot be prepared).
std::unique_ptr<DeviceLogic> DevsimLogic(const devsim::DeviceSettings& settings);

}  // namespace ferrolt::test
