#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/Hint.h"
#include "platform/TemporaryFolder.h"

namespace ferrolt::platform {

namespace {

constexpr const char* kTempFolderVariable = "TMPDIR";
constexpr const char* kFallbackTempFolder = "/tmp/";

Hint noFolderHint;

std::string FolderToTry() {
  const char* variable = std::getenv(kTempFolderVariable);
  return (variable != nullptr && *variable != '\0') ? variable : kFallbackTempFolder;
}

}  // namespace

size_t TemporaryFolder(char* buffer, size_t size) {
  std::string folder = FolderToTry();
  // A folder that is not there is no temporary folder: nothing could be saved.
  std::error_code error;
  if (!std::filesystem::is_directory(folder, error)) return 0;
  if (folder.back() != '/') folder += '/';
  if (folder.size() >= size) return folder.size();
  std::memcpy(buffer, folder.c_str(), folder.size() + 1);
  return folder.size();
}

void HintNoTemporaryFolder() {
  noFolderHint.Print(StandardErrorHints(),
                     "the temporary folder %s is not a folder; set %s to one you can write to, or give the logs "
                     "command a zip path.\n",
                     FolderToTry().c_str(), kTempFolderVariable);
}

}  // namespace ferrolt::platform
