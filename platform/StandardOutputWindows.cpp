#include <windows.h>

#include "platform/StandardOutput.h"

namespace ferrolt::platform {

// A console answers GetConsoleMode; a file, a pipe and the NUL device do not
// (the C library's _isatty counts NUL as a terminal).
bool StandardOutputIsTerminal() {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

}  // namespace ferrolt::platform
