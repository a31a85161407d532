// The CLI-mode state file: whether the user is inside a CLI session, kept in
// the current working directory between runs of the tool.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

namespace ferrolt {

inline constexpr const char* kCliModeFileName = "CLImode";
inline constexpr const char* kInCliModeLine = "CLI Mode = 1";
inline constexpr const char* kNotInCliModeLine = "CLI Mode = 0";

enum class CliModeVerdict { InCliMode, NotInCliMode, None };

// Only a whole line equal to one of the two texts gives a verdict: blanks,
// a stray carriage return or another letter case give none.
CliModeVerdict JudgeCliModeLine(const std::string& line);

// Creates or truncates the file and writes the one line. A file that cannot
// be written is silently left as it was.
void WriteCliMode(bool inCliMode, const std::filesystem::path& file = kCliModeFileName);

// Reads the file's verdicts, one per line, in order. Shares the file with
// any other open of it, so WriteCliMode may truncate it meanwhile.
class CliModeReader {
 public:
  // False when the file is missing or unreadable (no error).
  bool Open(const std::filesystem::path& file = kCliModeFileName);
  bool IsOpen() const { return file_.is_open(); }
  // The next line's verdict; false at the end of the file or on a read error.
  // A last line without a newline is still read.
  bool NextVerdict(CliModeVerdict& verdict);
  void Close();

 private:
  std::ifstream file_;
};

}  // namespace ferrolt
