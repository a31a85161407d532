#include "app/CliModeRule.h"

#include <cstdio>

namespace ferrolt {

namespace {

void RefuseInCliMode() { std::fputs("You are in CLI Mode. Please use stopcli command first.\n", stdout); }

void RefuseOutsideCliMode() { std::fputs("You are not in CLI Mode. Please use startcli command first.\n", stdout); }

void ActOnVerdict(CliModeRule rule, CliModeVerdict verdict, const std::function<void()>& launch) {
  if (verdict == CliModeVerdict::None) return;
  const bool inCliMode = verdict == CliModeVerdict::InCliMode;
  if (rule == CliModeRule::Forbidding) {
    inCliMode ? RefuseInCliMode() : launch();
  } else {
    inCliMode ? launch() : RefuseOutsideCliMode();
  }
}

}  // namespace

void ApplyCliModeRule(CliModeRule rule, CliModeReader& reader, const std::function<void()>& launch) {
  if (rule == CliModeRule::NotConsulted) {
    launch();
    return;
  }
  if (!reader.IsOpen()) {
    rule == CliModeRule::Forbidding ? launch() : RefuseOutsideCliMode();
    return;
  }
  CliModeVerdict verdict = CliModeVerdict::None;
  while (reader.NextVerdict(verdict)) ActOnVerdict(rule, verdict, launch);
  reader.Close();
}

}  // namespace ferrolt
