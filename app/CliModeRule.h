// Applies a command's CLI-mode rule: each verdict of the CLI-mode file
// launches the command or prints a refusal, line by line.
#pragma once

#include <functional>

#include "app/CliModeFile.h"
#include "app/CommandDispatch.h"

namespace ferrolt {

// Reads the reader to its end (closing it) unless the rule is not consulted.
// Without a file the forbidding rule launches once and the requiring rule
// refuses once; lines that give no verdict do nothing.
void ApplyCliModeRule(CliModeRule rule, CliModeReader& reader, const std::function<void()>& launch);

}  // namespace ferrolt
