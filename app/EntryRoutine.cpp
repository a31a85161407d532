#include "app/EntryRoutine.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/CliModeFile.h"
#include "app/CliModeRule.h"
#include "app/CommandDispatch.h"
#include "app/CommandLaunch.h"
#include "app/ConsoleReporters.h"
#include "app/ControlHandler.h"
#include "app/ExitStatus.h"
#include "app/GlobalDeviceAdmin.h"
#include "app/OrtString.h"
#include "app/UploadCheck.h"
#include "link/Limits.h"

namespace ferrolt {

namespace {

constexpr int kExitStatus = 0;

// Waits for the operation, then a bounded time for a cancel to finish. The
// operation's last lines are shown before that wait, not a period into it.
void EndWait(DeviceAdmin& admin, ConsoleReporters& reporters) {
  admin.WaitForOperation();
  std::fflush(stdout);
  if (admin.WaitForCancelEvent(limits::kEndWait)) reporters.log.LogMessageCallBack("Operation has been Canceled");
}

}  // namespace

int RunFerrolt(int argc, char** argv) {
  if (!InstallControlHandler()) {
    std::fputs("\nERROR: Could not set control handler", stdout);
    return kExitStatus;
  }
  // Static: a worker that outlives a cancelled run's end wait may still
  // report, and must not meet a freed stack frame.
  static ConsoleReporters reporters;
  CliModeReader cliMode;
  cliMode.Open();

  const Command command = DispatchCommand(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
  if (EndsAtOnce(command.kind)) {
    PrintImmediateAnswer(command, reporters);
    cliMode.Close();
    return ExitStatusWanted() && command.kind != CommandKind::Help ? kStatusUsage : kExitStatus;
  }

  // The worker reads the ORT string in place, possibly until process exit.
  static char ortString[kOrtStringBufferSize] = {};
  if (command.kind == CommandKind::StartOrt) std::strncpy(ortString, command.first.c_str(), kMaxOrtStringLength);

  DeviceAdmin& admin = GlobalDeviceAdmin();
  admin.ReadBackUploads(UploadCheckWanted());
  bool launched = false;
  ApplyCliModeRule(command.rule, cliMode, [&] { launched |= LaunchCommand(command, admin, reporters, ortString); });
  EndWait(admin, reporters);
  cliMode.Close();
  if (!ExitStatusWanted()) return kExitStatus;
  return ExitStatusOf(launched ? admin.LastOutcome() : Outcome::Refused);
}

}  // namespace ferrolt
