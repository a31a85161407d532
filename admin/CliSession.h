// The CLI session workers: the device's CLI mode on and off, and one shell
// command with its output printed as it arrives. Each opens the link itself.
#pragma once

#include <string>

#include "transfer/OperationContext.h"

namespace ferrolt {

void StartCli(const OperationContext& op);
void StopCli(const OperationContext& op);
void SendCliCommand(const OperationContext& op, const std::string& command);

}  // namespace ferrolt
