#include "app/CliModeFile.h"

#include <cstdio>

namespace ferrolt {

CliModeVerdict JudgeCliModeLine(const std::string& line) {
  if (line == kInCliModeLine) return CliModeVerdict::InCliMode;
  if (line == kNotInCliModeLine) return CliModeVerdict::NotInCliMode;
  return CliModeVerdict::None;
}

void WriteCliMode(bool inCliMode, const std::filesystem::path& file) {
  // Text mode: the newline is stored the platform's way.
  std::FILE* out = std::fopen(file.string().c_str(), "w");
  if (out == nullptr) return;
  std::fputs(inCliMode ? kInCliModeLine : kNotInCliModeLine, out);
  std::fputc('\n', out);
  std::fclose(out);
}

bool CliModeReader::Open(const std::filesystem::path& file) {
  file_.open(file);
  return file_.is_open();
}

bool CliModeReader::NextVerdict(CliModeVerdict& verdict) {
  if (!file_.is_open()) return false;
  std::string line;
  if (!std::getline(file_, line)) return false;
  verdict = JudgeCliModeLine(line);
  return true;
}

void CliModeReader::Close() {
  if (file_.is_open()) file_.close();
}

}  // namespace ferrolt
