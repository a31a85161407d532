// The console lines the tool prints, as every test expects them: in process,
// and end to end over the emulator link, umockdev's USB bus, and a real
// kernel in a virtual machine.
#pragma once

#include <string>

namespace ferrolt::test::lines {

inline constexpr const char* kOpened = "Device speed: 3 (High speed).\n";
inline constexpr const char* kNotFound = "Device not found.\nGeneral failure. GetLastError returned 80070103.\n";
inline constexpr const char* kSpi = "SPI SUPPORT IS TURNED ON!\n";
inline constexpr const char* kQuiet = "NONVERBOSE MODE DETECTED!\n";
inline constexpr const char* kConnectFailure =
    "LogMessageCallBack:\tError:Failed to connect to the bulk interface, device might be disconnected\n";
inline constexpr const char* kFailedOpen = "Failed to open device\n";
inline constexpr const char* kWriteFailed = "LogMessageCallBack:\tFailed to write to the bulk interface\n";
inline constexpr const char* kUploadFinished = "Finished File Upload!\n";

std::string Progress(int percent);
std::string Log(const std::string& text);
// `version` against a device holding version, in the given mode line.
std::string VersionLines(const char* mode, const std::string& version);
// `upload f58.bin` of these 58 bytes (two packets).
std::string UploadOf58Bytes(const std::string& bytes);
// progCap whose first write meets a STALL: the halt is cleared and the
// retry gets through.
std::string ProgCapThroughAStall();
// How a transfer ends whose device was unplugged for good.
std::string UnpluggedForGoodTail();

}  // namespace ferrolt::test::lines
