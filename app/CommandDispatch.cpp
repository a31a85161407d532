#include "app/CommandDispatch.h"

#include <cstddef>
#include <utility>

#include "app/DefaultLogPath.h"
#include "app/OrtString.h"
#include "platform/AsciiText.h"

namespace ferrolt {

namespace {

using Arguments = std::vector<std::string>;

// Command words, aliases and switches ignore case (ASCII only).
bool IsWord(const std::string& argument, const char* word) {
  size_t i = 0;
  for (; i < argument.size() && word[i] != '\0'; ++i)
    if (platform::AsciiLower(argument[i]) != platform::AsciiLower(word[i])) return false;
  return i == argument.size() && word[i] == '\0';
}

bool IsWordOrAlias(const std::string& argument, const char* word, const char* alias) {
  return IsWord(argument, word) || IsWord(argument, alias);
}

// True when argument number position (1-based) is the last one and is "-v".
bool IsVerboseSwitchAt(const Arguments& arguments, size_t position) {
  return arguments.size() == position && IsWord(arguments[position - 1], "-v");
}

Command Make(CommandKind kind, CliModeRule rule, std::string first = {}, std::string second = {}) {
  Command command;
  command.kind = kind;
  command.rule = rule;
  command.first = std::move(first);
  command.second = std::move(second);
  return command;
}

// The commands that take no argument.
bool DispatchSingleWord(const std::string& word, Command& command) {
  struct Entry {
    const char* word;
    CommandKind kind;
    CliModeRule rule;
  };
  static constexpr Entry kEntries[] = {
      {"progcap", CommandKind::ProgramCaptouch, CliModeRule::NotConsulted},
      {"startort", CommandKind::StartOrt, CliModeRule::Forbidding},
      {"endort", CommandKind::EndOrt, CliModeRule::Forbidding},
      {"startcli", CommandKind::StartCli, CliModeRule::NotConsulted},
      {"stopcli", CommandKind::StopCli, CliModeRule::NotConsulted},
      {"-h", CommandKind::Help, CliModeRule::NotConsulted},
  };
  for (const Entry& entry : kEntries) {
    if (!IsWord(word, entry.word)) continue;
    command = Make(entry.kind, entry.rule);
    if (entry.kind == CommandKind::StartOrt) command.first = BuildOrtString({word});
    return true;
  }
  return false;
}

Command DispatchStartOrt(const Arguments& arguments) {
  if (!IsWord(arguments[1], "extmic") && !IsWord(arguments[1], "reboot"))
    return Make(CommandKind::WrongOrt, CliModeRule::NotConsulted);
  std::string ort = BuildOrtString(arguments);
  if (ort.size() > kMaxOrtStringLength) return Make(CommandKind::OrtTooLong, CliModeRule::NotConsulted, ort);
  return Make(CommandKind::StartOrt, CliModeRule::Forbidding, ort);
}

// The checks for two or more arguments that come after startort and upgrade.
bool DispatchByCount(const Arguments& arguments, Command& command) {
  const std::string& word = arguments[0];
  if (arguments.size() == 2 && IsWordOrAlias(word, "cmd", "clicmd")) {
    command = Make(CommandKind::CliCommand, CliModeRule::Requiring, arguments[1]);
    return true;
  }
  if (arguments.size() == 2 && IsWordOrAlias(word, "upload", "fileupload")) {
    command = Make(CommandKind::Upload, CliModeRule::Forbidding, arguments[1]);
    return true;
  }
  if (arguments.size() == 3 && IsWordOrAlias(word, "download", "filedownload")) {
    command = Make(CommandKind::Download, CliModeRule::Forbidding, arguments[1], arguments[2]);
    return true;
  }
  if (IsWordOrAlias(word, "logs", "downloadlogs")) {
    command = Make(CommandKind::Logs, CliModeRule::Forbidding, arguments[1]);
    command.verbose = IsVerboseSwitchAt(arguments, 3);
    return true;
  }
  return false;
}

}  // namespace

bool EndsAtOnce(CommandKind kind) {
  return kind == CommandKind::Help || kind == CommandKind::Unrecognised || kind == CommandKind::WrongOrt ||
         kind == CommandKind::OrtTooLong;
}

Command DispatchCommand(const Arguments& arguments) {
  if (arguments.empty()) return Make(CommandKind::Unrecognised, CliModeRule::NotConsulted);
  const std::string& word = arguments[0];
  Command command;
  if (IsWordOrAlias(word, "version", "versionretrieval")) {
    command = Make(CommandKind::Version, CliModeRule::Forbidding);
    command.verbose = IsVerboseSwitchAt(arguments, 2);
    return command;
  }
  if (arguments.size() == 1) {
    if (DispatchSingleWord(word, command)) return command;
  } else if (IsWord(word, "startort")) {
    return DispatchStartOrt(arguments);
  } else if (IsWord(word, "upgrade")) {
    command = Make(CommandKind::Upgrade, CliModeRule::Forbidding, arguments[1]);
    command.verbose = IsVerboseSwitchAt(arguments, 3);
    return command;
  } else if (DispatchByCount(arguments, command)) {
    return command;
  }
  if (IsWordOrAlias(word, "logs", "downloadlogs"))
    return Make(CommandKind::DefaultLogs, CliModeRule::Forbidding, DefaultLogName(std::time(nullptr)));
  return Make(CommandKind::Unrecognised, CliModeRule::NotConsulted);
}

}  // namespace ferrolt
