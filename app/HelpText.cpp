#include "app/HelpText.h"

#include <cstddef>
#include <cstdio>
#include <string>

namespace ferrolt {

namespace {

constexpr size_t kHelpWidth = 84;

const char* const kHeader = "\nThe following is the list of commands this tool supports:\nCURRENT VERSION   : 2.3\n";

const char* const kDeviceAdministration[] = {
    "ferrolt.exe upgrade (Absolute Path to the bundle)\n",
    "   - Description  : Upgrades the device to the specified bundle .img file located on local disk.\n",
    "   - Example Usage: ferrolt.exe upgrade C:\\upgrade_bundle\\bundle.86.img\n\n",
    "ferrolt.exe version\n",
    "   - Description  : Get the current bundle version of the device.\n",
    "   - Example Usage: ferrolt.exe version\n\n",
    "ferrolt.exe logs (Absolute Path of zip file)\n",
    "   - Description  : Gets the device logs and saves it to the specified location on local disk.\n",
    "                    If no path is specified, it will save to user's \\AppData\\Local\\Temp\\ dir with filename "
    "TavrelLogs/(DATE.TIME/)\n",
    "   - Example Usage: ferrolt.exe logs C:\\logs\\TavrelLogs.zip\n",
    "                    OR\n",
    "                    ferrolt.exe logs\n\n",
};

const char* const kDebuggingCli[] = {
    "ferrolt.exe startcli\n",
    "   - Description  : Begin a Linux CLI session for device.\n",
    "   - Example Usage: ferrolt.exe startcli\n\n",
    "ferrolt.exe cmd \"(Linux Command)\"\n",
    "   - Description  : Sends the specified Linux command to the device and get a response back.\n",
    "   - Example Usage: ferrolt.exe cmd \"ps -ef\"\n\n",
    "ferrolt.exe stopcli\n",
    "   - Description  : Stops the current Linux CLI session for device.\n",
    "   - Example Usage: ferrolt.exe stopcli\n\n",
};

const char* const kFileTransfer[] = {
    "ferrolt.exe upload (Absolute path to the file)\n",
    "   - Description  : Sends the specified file located on local disk to the /tmp/ directory of the device.\n",
    "   - Example Usage: ferrolt.exe upload C:\\test\\test.txt\n\n",
    "ferrolt.exe download (Absolute path to the file on device) (Save path)\n",
    "   - Description  : Gets the specified file from the device and saves it to local disk.\n",
    "   - Example Usage: ferrolt.exe download /tmp/messages C:\\myTavrelDownloads\\messages.txt\n\n",
};

const char* const kOrt[] = {
    "ferrolt.exe startort reboot (reboot #) duration (duration #)\n",
    "                                   OR                               \n",
    "ferrolt.exe startort extmic reboot (reboot #) duration (duration #)\n",
    "   - Description  : Starts Operational Reliability Test on the device.\n",
    "   - Example Usage: ferrolt.exe startort extmic reboot 5 duration 20\n\n",
    "ferrolt.exe endort\n",
    "   - Description  : Ends Operational Reliability Test on the device.\n",
    "   - Example Usage: ferrolt.exe endort\n\n",
};

void PrintRule(const char* ending) {
  std::fputs(std::string(kHelpWidth, '-').c_str(), stdout);
  std::fputs(ending, stdout);
}

// A rule, the title centred in hyphens, a rule and an empty line.
void PrintBanner(const std::string& title) {
  const std::string hyphens((kHelpWidth - title.size()) / 2, '-');
  PrintRule("\n");
  std::fputs((hyphens + title + hyphens + "\n").c_str(), stdout);
  PrintRule("\n\n");
}

template <size_t Count>
void PrintSection(const char* title, const char* const (&lines)[Count]) {
  PrintBanner(title);
  for (const char* line : lines) std::fputs(line, stdout);
}

}  // namespace

void PrintHelp() {
  std::fputs(kHeader, stdout);
  PrintSection("Device Administration Commands", kDeviceAdministration);
  PrintSection("Debugging CLI Commands", kDebuggingCli);
  PrintSection("File Transfer Commands", kFileTransfer);
  PrintSection("ORT Commands", kOrt);
  std::fflush(stdout);
}

}  // namespace ferrolt
