// Where a log download goes when no zip path is given: a name made from the
// local time, in the user's temporary folder.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

#include "platform/TemporaryFolder.h"

namespace ferrolt {

// The name is formatted into a buffer of this size.
inline constexpr size_t kLogNameBufferSize = 80;
// The temporary folder, with its trailing separator, must fit this buffer.
inline constexpr size_t kTempFolderBufferSize = 260;
// 12-hour clock without an AM/PM mark: 03:05:07 and 15:05:07 give one name.
inline constexpr const char* kLogNameFormat = "TavrelLogs(%Y-%m-%d.%I`%M`%S).zip";

std::string DefaultLogName(const std::tm& localTime);
std::string DefaultLogName(std::time_t when);

// The folder the default log path goes in.
using platform::TemporaryFolder;

}  // namespace ferrolt
