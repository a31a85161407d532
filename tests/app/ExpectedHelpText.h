// The help text as a user reads it, written out independently of the code
// that prints it; shared by the unit and end-to-end tests.
#pragma once

#include <string>

namespace ferrolt::test {

inline const std::string kHelpRule = std::string(84, '-') + "\n";

inline std::string HelpBanner(int hyphens, const std::string& title) {
  const std::string side(hyphens, '-');
  return kHelpRule + side + title + side + "\n" + kHelpRule + "\n";
}

inline std::string ExpectedHelp() {
  return "\nThe following is the list of commands this tool supports:\nCURRENT VERSION   : 2.3\n" +
         HelpBanner(27, "Device Administration Commands") +
         "ferrolt.exe upgrade (Absolute Path to the bundle)\n"
         "   - Description  : Upgrades the device to the specified bundle .img file located on local disk.\n"
         "   - Example Usage: ferrolt.exe upgrade C:\\upgrade_bundle\\bundle.86.img\n\n"
         "ferrolt.exe version\n"
         "   - Description  : Get the current bundle version of the device.\n"
         "   - Example Usage: ferrolt.exe version\n\n"
         "ferrolt.exe logs (Absolute Path of zip file)\n"
         "   - Description  : Gets the device logs and saves it to the specified location on local disk.\n"
         "                    If no path is specified, it will save to user's \\AppData\\Local\\Temp\\ dir with "
         "filename TavrelLogs/(DATE.TIME/)\n"
         "   - Example Usage: ferrolt.exe logs C:\\logs\\TavrelLogs.zip\n"
         "                    OR\n"
         "                    ferrolt.exe logs\n\n" +
         HelpBanner(31, "Debugging CLI Commands") +
         "ferrolt.exe startcli\n"
         "   - Description  : Begin a Linux CLI session for device.\n"
         "   - Example Usage: ferrolt.exe startcli\n\n"
         "ferrolt.exe cmd \"(Linux Command)\"\n"
         "   - Description  : Sends the specified Linux command to the device and get a response back.\n"
         "   - Example Usage: ferrolt.exe cmd \"ps -ef\"\n\n"
         "ferrolt.exe stopcli\n"
         "   - Description  : Stops the current Linux CLI session for device.\n"
         "   - Example Usage: ferrolt.exe stopcli\n\n" +
         HelpBanner(31, "File Transfer Commands") +
         "ferrolt.exe upload (Absolute path to the file)\n"
         "   - Description  : Sends the specified file located on local disk to the /tmp/ directory of the "
         "device.\n"
         "   - Example Usage: ferrolt.exe upload C:\\test\\test.txt\n\n"
         "ferrolt.exe download (Absolute path to the file on device) (Save path)\n"
         "   - Description  : Gets the specified file from the device and saves it to local disk.\n"
         "   - Example Usage: ferrolt.exe download /tmp/messages C:\\myTavrelDownloads\\messages.txt\n\n" +
         HelpBanner(36, "ORT Commands") + "ferrolt.exe startort reboot (reboot #) duration (duration #)\n" +
         std::string(35, ' ') + "OR" + std::string(31, ' ') + "\n" +
         "ferrolt.exe startort extmic reboot (reboot #) duration (duration #)\n"
         "   - Description  : Starts Operational Reliability Test on the device.\n"
         "   - Example Usage: ferrolt.exe startort extmic reboot 5 duration 20\n\n"
         "ferrolt.exe endort\n"
         "   - Description  : Ends Operational Reliability Test on the device.\n"
         "   - Example Usage: ferrolt.exe endort\n\n";
}

}  // namespace ferrolt::test
