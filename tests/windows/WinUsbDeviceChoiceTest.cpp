// Choosing one of several devices on Windows: FERROLT_DEVICE names the
// device instance id of interface 4 or a serial number, which Windows keeps
// in the composite device's instance id. Discovery runs through the stand-in's
// SetupAPI with two devices plugged in.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "link/DeviceIds.h"
#include "link/UsbLink.h"
#include "platform/AsciiText.h"
#include "platform/UsbInterfacePath.h"
#include "platform/winusb/DeviceInstance.h"
#include "platform/winusb/WinUsbBackend.h"
#include "tests/support/RecordingCallbacks.h"
#include "tests/windows/WinUsbStandIn.h"

namespace ferrolt::test {
namespace {

struct InstanceCase {
  const char* path;
  const char* instanceId;
  const char* serial;  // of that instance id
};

TEST(DeviceInstanceTest, InstanceIdAndSerialFromAPath) {
  const InstanceCase rows[] = {
      {"\\\\?\\usb#vid_1209&pid_0001&mi_04#7&2b3c&0&0004#{6f1c2b7a-3e4d-4a85-9b21-5c7e0d44a319}",
       "USB\\VID_1209&PID_0001&MI_04\\7&2B3C&0&0004", ""},
      {"\\\\?\\USB#VID_1209&PID_0001#A1B2C3#{A5DCBF10-6530-11D2-901F-00C04FB951ED}", "USB\\VID_1209&PID_0001\\A1B2C3",
       "A1B2C3"},
      {"\\\\?\\usb#vid_1209&pid_0001#a1b2c3", "", ""},
      {"usb#vid_1209&pid_0001#a1b2c3#{guid}", "", ""},
  };
  for (const InstanceCase& row : rows) {
    EXPECT_EQ(platform::InstanceIdOfPath(row.path), row.instanceId) << row.path;
    EXPECT_EQ(platform::SerialOfInstanceId(row.instanceId), row.serial) << row.path;
  }
}

enum class Pick { First, Second, None };

struct ChoiceCase {
  const char* name;
  StandInLayout secondLayout;
  std::optional<std::string> (*choice)(const StandInDevice& first, const StandInDevice& second);
  Pick opened;
  const char* errPart;  // in standard error; "" for nothing at all
};

// Given two devices, the second listed with the first or only under its own
// interface class, the link opens the one FERROLT_DEVICE names, or the first listed.
class WinUsbDeviceChoice : public ::testing::TestWithParam<ChoiceCase> {
 protected:
  ~WinUsbDeviceChoice() override { _putenv_s("FERROLT_DEVICE", ""); }
};

TEST_P(WinUsbDeviceChoice, OpensTheChosenDevice) {
  const ChoiceCase& row = GetParam();
  const StandInDevice first{StandInLayout::WithTheUsbDevices};
  const StandInDevice second{row.secondLayout};
  const std::optional<std::string> choice = row.choice(first, second);
  _putenv_s("FERROLT_DEVICE", choice ? choice->c_str() : "");
  const auto backend = platform::CreateWinUsbBackend(StandInWinUsbApi(), StandInSetupApi());
  platform::Event cancel;
  UsbLink link{*backend, cancel};
  RecordingLog log;

  ::testing::internal::CaptureStderr();
  const bool opened = link.ConnectDevice(kProductId, kVendorId, &log);
  const std::string err = ::testing::internal::GetCapturedStderr();
  if (*row.errPart == '\0') {
    EXPECT_EQ(err, "");
  } else {
    EXPECT_NE(err.find(row.errPart), std::string::npos) << err;
  }
  ASSERT_EQ(opened, row.opened != Pick::None);
  if (!opened) return;
  const StandInDevice& expected = row.opened == Pick::First ? first : second;
  EXPECT_TRUE(platform::SamePath(link.DevicePathText(), expected.InterfacePath())) << link.DevicePathText();
}

INSTANTIATE_TEST_SUITE_P(
    Choices, WinUsbDeviceChoice,
    ::testing::Values(
        ChoiceCase{"NoneListsBothAndOpensTheFirst", StandInLayout::WithTheUsbDevices,
                   [](const StandInDevice&, const StandInDevice&) { return std::optional<std::string>(); }, Pick::First,
                   "2 devices have ids"},
        ChoiceCase{"BySerialOfAnInterfaceOnlyItsOwnClassLists", StandInLayout::UnderItsOwnClasses,
                   [](const StandInDevice&, const StandInDevice& second) {
                     return std::optional<std::string>("serial:" + second.Serial());
                   },
                   Pick::Second, ""},
        ChoiceCase{"ByInstanceIdInAnotherLetterCase", StandInLayout::UnderItsOwnClasses,
                   [](const StandInDevice& first, const StandInDevice&) {
                     return std::optional<std::string>(
                         platform::AsciiLowered(platform::InstanceIdOfPath(first.InterfacePath())));
                   },
                   Pick::First, ""},
        ChoiceCase{"ByASerialNoDeviceHas", StandInLayout::UnderItsOwnClasses,
                   [](const StandInDevice&, const StandInDevice&) { return std::optional<std::string>("serial:NOPE"); },
                   Pick::None, "FERROLT_DEVICE=serial:NOPE: no attached USB device has that serial number.\n"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace ferrolt::test
