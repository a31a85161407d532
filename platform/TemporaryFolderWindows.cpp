#include <windows.h>

#include "platform/Hint.h"
#include "platform/TemporaryFolder.h"

namespace ferrolt::platform {

namespace {

Hint noFolderHint;

}  // namespace

size_t TemporaryFolder(char* buffer, size_t size) {
  const DWORD answer = GetTempPathA(static_cast<DWORD>(size), buffer);
  // A buffer too small gets nothing, and the answer counts the terminating
  // zero as well: the folder's own length is one less.
  if (answer >= size) return answer - 1;
  return answer;
}

void HintNoTemporaryFolder() {
  noFolderHint.Print(StandardErrorHints(),
                     "Windows gives no temporary folder (error %lu); set TMP or TEMP to a folder you can write to, "
                     "or give the logs command a zip path.\n",
                     static_cast<unsigned long>(GetLastError()));
}

}  // namespace ferrolt::platform
