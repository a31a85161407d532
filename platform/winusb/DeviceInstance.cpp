#include "platform/winusb/DeviceInstance.h"

#include <algorithm>

#include "platform/AsciiText.h"

namespace ferrolt::platform {
namespace {

constexpr const char* kPathPrefix = "\\\\?\\";
constexpr const char* kClassStart = "#{";

}  // namespace

std::string InstanceIdOfPath(const std::string& path) {
  const std::string prefix = kPathPrefix;
  const size_t classStart = path.rfind(kClassStart);
  if (path.compare(0, prefix.size(), prefix) != 0 || classStart == std::string::npos || classStart <= prefix.size())
    return {};
  std::string id = path.substr(prefix.size(), classStart - prefix.size());
  std::replace(id.begin(), id.end(), '#', '\\');
  std::transform(id.begin(), id.end(), id.begin(), AsciiUpper);
  return id;
}

std::string SerialOfInstanceId(const std::string& instanceId) {
  const size_t last = instanceId.rfind('\\');
  if (last == std::string::npos) return {};
  const std::string tail = instanceId.substr(last + 1);
  return tail.find('&') == std::string::npos ? tail : std::string();
}

}  // namespace ferrolt::platform
