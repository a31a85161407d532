#include "app/CommandLaunch.h"

#include <cstdio>
#include <string>

#include "app/CliModeFile.h"
#include "app/DefaultLogPath.h"
#include "app/HelpText.h"
#include "app/OrtString.h"

namespace ferrolt {

namespace {

// A labelled path line, flushed at its newline.
void PrintPathLine(const char* label, const std::string& path) {
  std::fputs(label, stdout);
  std::fputs(path.c_str(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

// The device names an uploaded file by what follows the last backslash; a
// forward slash does not separate. A user who gave a POSIX path is told why
// the device sees the whole of it.
void HintWholePathAsName(const std::string& localPath) {
  const size_t backslash = localPath.rfind('\\');
  const size_t nameStart = backslash == std::string::npos ? 0 : backslash + 1;
  if (localPath.find('/', nameStart) == std::string::npos) return;
  std::fprintf(stderr,
               "ferrolt: the device gets \"%s\" as the file name (only a backslash separates folders); run "
               "ferrolt in the file's folder to send its bare name.\n",
               localPath.c_str() + nameStart);
}

bool LaunchDefaultLogs(const std::string& logName, DeviceAdmin& admin, ConsoleReporters& reporters) {
  char folder[kTempFolderBufferSize] = {};
  const size_t length = TemporaryFolder(folder, sizeof folder);
  if (length == 0) {
    std::fputs("Please check and ensure user has a valid temporary folder.", stdout);
    platform::HintNoTemporaryFolder();
    return false;
  }
  if (length >= sizeof folder) {
    reporters.log.LogMessageCallBack("Error: The temporary folder path is %d characters long; at most %d fit.",
                                     static_cast<int>(length), static_cast<int>(sizeof folder - 1));
    return false;
  }
  const std::string zipPath = std::string(folder) + logName;
  std::fputs("Since there was no log path argument was identified, your log files have been downloaded to:\n<", stdout);
  std::fputs(zipPath.c_str(), stdout);
  std::fputs(">\n", stdout);
  std::fflush(stdout);
  return admin.DownloadLogsAsync(zipPath, &reporters.progress, &reporters.log, false) == 0;
}

}  // namespace

bool LaunchCommand(const Command& command, DeviceAdmin& admin, ConsoleReporters& reporters, char* ortString) {
  auto* progress = &reporters.progress;
  auto* log = &reporters.log;
  switch (command.kind) {
    case CommandKind::Version:
      return admin.RetrieveVersionAsync(&reporters.version, progress, log, command.verbose) == 0;
    case CommandKind::ProgramCaptouch:
      std::fputs("Programming Captouch...\n", stdout);
      return admin.ProgramCaptouchAsync(progress, log) == 0;
    case CommandKind::StartOrt:
      std::printf("ORTstring = %s", ortString);
      return admin.StartOrtAsync(progress, log, ortString) == 0;
    case CommandKind::EndOrt:
      return admin.EndOrtAsync(progress, log, false) == 0;
    case CommandKind::StartCli:
      WriteCliMode(true);
      return admin.StartCliAsync(progress, log) == 0;
    case CommandKind::StopCli:
      WriteCliMode(false);
      return admin.StopCliAsync(progress, log) == 0;
    case CommandKind::Upgrade:
      return admin.UpgradeBundleAsync(command.first, progress, log, command.verbose) == 0;
    case CommandKind::CliCommand:
      return admin.SendCliCommandAsync(command.first, progress, log) == 0;
    case CommandKind::Upload:
      PrintPathLine("Local Path  : ", command.first);
      HintWholePathAsName(command.first);
      return admin.UploadFileAsync(command.first, progress, log) == 0;
    case CommandKind::Download:
      PrintPathLine("Device Path: ", command.first);
      PrintPathLine("Save Path  : ", command.second);
      return admin.DownloadFileAsync(command.first, command.second, progress, log) == 0;
    case CommandKind::Logs:
      return admin.DownloadLogsAsync(command.first, progress, log, command.verbose) == 0;
    case CommandKind::DefaultLogs:
      return LaunchDefaultLogs(command.first, admin, reporters);
    case CommandKind::Help:
    case CommandKind::Unrecognised:
    case CommandKind::WrongOrt:
    case CommandKind::OrtTooLong:
      // Answered by PrintImmediateAnswer before any launch.
      break;
  }
  return false;
}

void PrintImmediateAnswer(const Command& command, ConsoleReporters& reporters) {
  switch (command.kind) {
    case CommandKind::Help:
      PrintHelp();
      break;
    case CommandKind::WrongOrt:
      std::fputs("Wrong ORT command!\n", stdout);
      break;
    case CommandKind::OrtTooLong:
      reporters.log.LogMessageCallBack("Error: The ORT string would be %d characters long; at most %d fit.",
                                       static_cast<int>(command.first.size()), static_cast<int>(kMaxOrtStringLength));
      break;
    default:
      std::fputs("\nNot a valid registered command!\n", stdout);
      std::fputs("Type -h for a list of valid commands.\n", stdout);
      break;
  }
}

}  // namespace ferrolt
