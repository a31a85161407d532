#include <windows.h>

#include "platform/TemporaryFolder.h"

namespace ferrolt::platform {

size_t TemporaryFolder(char* buffer, size_t size) {
  const DWORD answer = GetTempPathA(static_cast<DWORD>(size), buffer);
  // A buffer too small gets nothing, and the answer counts the terminating
  // zero as well: the folder's own length is one less.
  if (answer >= size) return answer - 1;
  return answer;
}

}  // namespace ferrolt::platform
