// Turns the command line into the one command a run performs: which entry
// point it launches, under which CLI-mode rule, with which arguments. Words
// are checked by argument count first, then by word, in a fixed order.
#pragma once

#include <string>
#include <vector>

namespace ferrolt {

enum class CommandKind {
  Help,
  Unrecognised,
  WrongOrt,
  OrtTooLong,
  Version,
  ProgramCaptouch,
  StartOrt,
  EndOrt,
  StartCli,
  StopCli,
  Upgrade,
  CliCommand,
  Upload,
  Download,
  Logs,
  DefaultLogs,
};

// How the CLI-mode file decides whether the command launches.
enum class CliModeRule {
  NotConsulted,
  Forbidding,  // refused inside a CLI session
  Requiring,   // refused outside a CLI session
};

struct Command {
  CommandKind kind = CommandKind::Unrecognised;
  CliModeRule rule = CliModeRule::NotConsulted;
  bool verbose = false;
  // The bundle, upload, device or zip path, the Linux command, the ORT
  // string, or the default log file name.
  std::string first;
  // The download's save path.
  std::string second;
};

// True for the kinds that end the run at once, without the end wait.
bool EndsAtOnce(CommandKind kind);

// arguments: the command line after the program name (the command word first).
Command DispatchCommand(const std::vector<std::string>& arguments);

}  // namespace ferrolt
