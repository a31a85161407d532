// A local path named as the file to send.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

namespace ferrolt {

// The refusal of a path that names a folder: it opens on some systems and
// would otherwise be measured as a file of any size.
inline constexpr const char* kFolderRefusal = "Error: The specified path is a folder, not a file - ";

inline bool NamesAFolder(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_directory(path, error);
}

}  // namespace ferrolt
