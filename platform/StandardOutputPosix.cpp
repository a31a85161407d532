#include <unistd.h>

#include "platform/StandardOutput.h"

namespace ferrolt::platform {

bool StandardOutputIsTerminal() { return isatty(STDOUT_FILENO) == 1; }

}  // namespace ferrolt::platform
