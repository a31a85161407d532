#include "app/CliModeRule.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/Hint.h"

namespace ferrolt {

namespace {

platform::Hint cliModeHint;

// The refusal names what the file says; the hint says where the file is,
// since startcli and stopcli write it in the folder they run in.
void HintCliModeFile(const char* finding) {
  std::error_code error;
  const std::filesystem::path file = std::filesystem::current_path(error) / kCliModeFileName;
  cliModeHint.Print(platform::StandardErrorHints(),
                    "%s %s. startcli and stopcli write that file in the folder they run in; run every command of "
                    "a CLI session from the same folder.\n",
                    file.string().c_str(), finding);
}

void RefuseInCliMode() {
  std::fputs("You are in CLI Mode. Please use stopcli command first.\n", stdout);
  HintCliModeFile("says \"CLI Mode = 1\"");
}

void RefuseOutsideCliMode(bool fileRead) {
  std::fputs("You are not in CLI Mode. Please use startcli command first.\n", stdout);
  HintCliModeFile(fileRead ? "says \"CLI Mode = 0\"" : "does not exist");
}

void ActOnVerdict(CliModeRule rule, CliModeVerdict verdict, const std::function<void()>& launch) {
  if (verdict == CliModeVerdict::None) return;
  const bool inCliMode = verdict == CliModeVerdict::InCliMode;
  if (rule == CliModeRule::Forbidding) {
    inCliMode ? RefuseInCliMode() : launch();
  } else {
    inCliMode ? launch() : RefuseOutsideCliMode(true);
  }
}

}  // namespace

void ApplyCliModeRule(CliModeRule rule, CliModeReader& reader, const std::function<void()>& launch) {
  if (rule == CliModeRule::NotConsulted) {
    launch();
    return;
  }
  if (!reader.IsOpen()) {
    rule == CliModeRule::Forbidding ? launch() : RefuseOutsideCliMode(false);
    return;
  }
  CliModeVerdict verdict = CliModeVerdict::None;
  while (reader.NextVerdict(verdict)) ActOnVerdict(rule, verdict, launch);
  reader.Close();
}

}  // namespace ferrolt
