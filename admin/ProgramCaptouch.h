// Captouch programming: the device reprograms its touch controller when it
// receives the plain-text reboot request.
#pragma once

#include "transfer/OperationContext.h"

namespace ferrolt {

void ProgramCaptouch(const OperationContext& op);

}  // namespace ferrolt
