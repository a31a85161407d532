// The text that starts the device's reliability test, built from the
// startort command line.
#pragma once

#include <string>
#include <vector>

#include "admin/ReliabilityTest.h"

namespace ferrolt {

// "ort start", then, when there are further arguments, each of them after one
// blank and one final blank. arguments starts with the command word.
std::string BuildOrtString(const std::vector<std::string>& arguments);

}  // namespace ferrolt
