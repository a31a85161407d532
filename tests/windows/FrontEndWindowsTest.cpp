// ferrolt.exe as a user runs it on Windows: console text in text mode (every
// line end a CRLF), device discovery through the real SetupAPI, and the
// CLI-mode file in the working directory.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/app/ExpectedHelpText.h"
#include "tests/windows/WindowsProcess.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kRunLimit{60000};

// What the console shows for text printed with "\n" line ends.
std::string WithCrLf(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

std::string ReadBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Given no device attached (none is under Wine) and an empty working folder.
class FrontEndWindowsTest : public testing::Test {
 protected:
  ChildResult Run(const std::vector<std::string>& args) { return RunChild(FERROLT_EXE, args, dir_.Path(), kRunLimit); }
  WindowsTempDir dir_;
};

TEST_F(FrontEndWindowsTest, HelpIsTheFixedTextWithCrLfLineEnds) {
  const ChildResult result = Run({"-h"});
  ASSERT_FALSE(result.timedOut);
  EXPECT_EQ(result.out, WithCrLf(ExpectedHelp()));
  EXPECT_EQ(result.exitCode, 0u);
}

TEST_F(FrontEndWindowsTest, VersionWithoutADeviceReportsTheSetupApiSearch) {
  const ChildResult result = Run({"version"});
  ASSERT_FALSE(result.timedOut);
  EXPECT_EQ(result.out, WithCrLf("Device not found.\nGeneral failure. GetLastError returned 80070103.\n"
                                 "NONVERBOSE MODE DETECTED!\nSPI SUPPORT IS TURNED ON!\n"
                                 "LogMessageCallBack:\tFailed in writing 'Version Retrieval' to device.\n"));
  // One hint: the ids searched and the WinUSB binding.
  EXPECT_EQ(result.err.rfind("ferrolt: no USB device VID_1209&PID_0001 with interface 4 (MI_04) bound to WinUSB "
                             "was found.",
                             0),
            0u)
      << result.err;
  EXPECT_NE(result.err.find("WinUSB Device"), std::string::npos) << result.err;
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  EXPECT_EQ(result.exitCode, 0u);
}

TEST_F(FrontEndWindowsTest, CliModeFileIsWrittenWithCrLfAndReadBackAsOneLine) {
  const ChildResult start = Run({"startcli"});
  ASSERT_FALSE(start.timedOut);
  EXPECT_EQ(ReadBytes(dir_.Path() / "CLImode"), "CLI Mode = 1\r\n");
  // In CLI mode the forbidding commands refuse: the CRLF line gave its verdict.
  EXPECT_EQ(Run({"upload", "missing.bin"}).out, WithCrLf("You are in CLI Mode. Please use stopcli command first.\n"));
  Run({"stopcli"});
  EXPECT_EQ(ReadBytes(dir_.Path() / "CLImode"), "CLI Mode = 0\r\n");
}

}  // namespace
}  // namespace ferrolt::test
