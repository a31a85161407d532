#include "platform/DeviceChoice.h"

#include <cstdlib>

#include "platform/AsciiText.h"
#include "platform/Hint.h"

namespace ferrolt::platform {
namespace {

Hint noChoiceHint;

bool SameIgnoringCase(const std::string& left, const std::string& right) {
  return AsciiLowered(left) == AsciiLowered(right);
}

}  // namespace

DeviceChoice ParseDeviceChoice(const char* value) {
  if (value == nullptr || *value == '\0') return {};
  const std::string text = value;
  const std::string prefix = kSerialPrefix;
  if (text.compare(0, prefix.size(), prefix) == 0) return {DeviceChoice::By::Serial, text.substr(prefix.size())};
  return {DeviceChoice::By::Place, text};
}

DeviceChoice ChosenDevice() { return ParseDeviceChoice(std::getenv(kDeviceChoiceVariable)); }

bool Chooses(const DeviceChoice& choice, const DeviceIdentity& device) {
  switch (choice.by) {
    case DeviceChoice::By::Anything:
      return true;
    case DeviceChoice::By::Place:
      return SameIgnoringCase(choice.value, device.place);
    case DeviceChoice::By::Serial:
      return !device.serial.empty() && SameIgnoringCase(choice.value, device.serial);
  }
  return false;
}

std::string DescribeIdentity(const DeviceIdentity& device, const std::string& speed) {
  const std::string serial = device.serial.empty() ? "(no serial number)" : kSerialPrefix + device.serial;
  return device.place + "  " + serial + (speed.empty() ? "" : "  " + speed);
}

void HintChoiceMatchesNothing(HintSink& hints, const DeviceChoice& choice) {
  const bool bySerial = choice.by == DeviceChoice::By::Serial;
  noChoiceHint.Print(hints, "%s=%s%s: no attached USB device has that %s.\n", kDeviceChoiceVariable,
                     bySerial ? kSerialPrefix : "", choice.value.c_str(), bySerial ? "serial number" : "place");
}

}  // namespace ferrolt::platform
