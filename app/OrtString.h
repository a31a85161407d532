// The text that starts the device's reliability test, built from the
// startort command line.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace ferrolt {

// The ORT string lives in a buffer of this size for the whole run.
inline constexpr size_t kOrtStringBufferSize = 80;
inline constexpr size_t kMaxOrtStringLength = kOrtStringBufferSize - 1;

// "ort start", then, when there are further arguments, each of them after one
// blank and one final blank. arguments starts with the command word.
std::string BuildOrtString(const std::vector<std::string>& arguments);

}  // namespace ferrolt
