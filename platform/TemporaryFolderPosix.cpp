#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/TemporaryFolder.h"

namespace ferrolt::platform {

namespace {

constexpr const char* kTempFolderVariable = "TMPDIR";
constexpr const char* kFallbackTempFolder = "/tmp/";

}  // namespace

size_t TemporaryFolder(char* buffer, size_t size) {
  const char* variable = std::getenv(kTempFolderVariable);
  std::string folder = (variable != nullptr && *variable != '\0') ? variable : kFallbackTempFolder;
  // A folder that is not there is no temporary folder: nothing could be saved.
  std::error_code error;
  if (!std::filesystem::is_directory(folder, error)) return 0;
  if (folder.back() != '/') folder += '/';
  if (folder.size() >= size) return folder.size();
  std::memcpy(buffer, folder.c_str(), folder.size() + 1);
  return folder.size();
}

}  // namespace ferrolt::platform
