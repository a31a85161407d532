// Which of several attached devices to use: FERROLT_DEVICE names one by its
// place (on Linux its bus path, "1-4.3"; on Windows its device instance id)
// or by its serial number ("serial:XYZ"). The USB backends list the chosen
// device only, before the link matches ids, so a run without the variable
// finds devices as it always has.
#pragma once

#include <string>

#include "platform/Hint.h"

namespace ferrolt::platform {

inline constexpr const char* kDeviceChoiceVariable = "FERROLT_DEVICE";
inline constexpr const char* kSerialPrefix = "serial:";

struct DeviceChoice {
  enum class By { Anything, Place, Serial };
  By by = By::Anything;
  std::string value;
};

// What the backend knows of one attached device.
struct DeviceIdentity {
  std::string place;
  std::string serial;  // empty when it has none, or none could be read
};

// The choice a value of FERROLT_DEVICE makes; an absent or empty one chooses
// anything.
DeviceChoice ParseDeviceChoice(const char* value);
// The choice of this process's environment.
DeviceChoice ChosenDevice();

// Places and serial numbers compare ignoring letter case, as Windows compares
// instance ids.
bool Chooses(const DeviceChoice& choice, const DeviceIdentity& device);

// One device of a list of several: "PLACE  serial:NUMBER  SPEED", the first
// two words being what FERROLT_DEVICE takes.
std::string DescribeIdentity(const DeviceIdentity& device, const std::string& speed);

// The choice named no attached device: said once a run; the run goes on as
// one without a device.
void HintChoiceMatchesNothing(HintSink& hints, const DeviceChoice& choice);

}  // namespace ferrolt::platform
