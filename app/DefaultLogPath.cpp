#include "app/DefaultLogPath.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace ferrolt {

namespace {

constexpr const char* kTempFolderVariable = "TMPDIR";
constexpr const char* kFallbackTempFolder = "/tmp/";

std::tm ToLocalTime(std::time_t when) {
  std::tm local{};
#ifdef _WIN32
  localtime_s(&local, &when);
#else
  localtime_r(&when, &local);
#endif
  return local;
}

}  // namespace

std::string DefaultLogName(const std::tm& localTime) {
  char name[kLogNameBufferSize] = {};
  std::strftime(name, sizeof name, kLogNameFormat, &localTime);
  return name;
}

std::string DefaultLogName(std::time_t when) { return DefaultLogName(ToLocalTime(when)); }

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

}  // namespace ferrolt
