// FERROLT_VERIFY=1: an upload reads its file back from the device and
// compares it with the one sent; the verdict is a note on standard error.
#pragma once

namespace ferrolt {

inline constexpr const char* kUploadCheckVariable = "FERROLT_VERIFY";

bool UploadCheckWanted();

}  // namespace ferrolt
