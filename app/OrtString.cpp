#include "app/OrtString.h"

namespace ferrolt {

std::string BuildOrtString(const std::vector<std::string>& arguments) {
  std::string ort = "ort start";
  if (arguments.size() < 2) return ort;
  ort += ' ';
  for (size_t i = 1; i < arguments.size(); ++i) {
    ort += arguments[i];
    ort += ' ';
  }
  return ort;
}

}  // namespace ferrolt
