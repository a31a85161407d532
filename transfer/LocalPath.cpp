#include "transfer/LocalPath.h"

#include <filesystem>
#include <system_error>

#include "link/Reporting.h"

namespace ferrolt {

bool NamesAFolder(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_directory(path, error);
}

void ReportUnopenableFile(const OperationContext& op, const std::string& path) {
  LogText(op.log, "Error: Can not find specified file - " + path);
  if (NamesAFolder(path)) op.console.Note(path + " is a folder; give the path of a file.");
}

}  // namespace ferrolt
