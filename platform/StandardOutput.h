// What standard output is attached to: someone may be watching a terminal
// line by line, while a file or a pipe is read as a whole.
#pragma once

namespace ferrolt::platform {

// True when standard output is a terminal (a console window on Windows).
bool StandardOutputIsTerminal();

}  // namespace ferrolt::platform
