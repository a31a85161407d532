#include "platform/UsbInterfacePath.h"

#include <gtest/gtest.h>

namespace ferrolt::platform {
namespace {

// Given a device's ids and place, the path reads as Windows writes it and
// parses back in any letter case.
TEST(UsbInterfacePathTest, FormatsTheWindowsForm) {
  EXPECT_EQ(FormatInterfacePath({0xABCD, 0x00EF, 4}, "3.17"),
            "\\\\?\\USB#VID_ABCD&PID_00EF&MI_04#3.17#{A5DCBF10-6530-11D2-901F-00C04FB951ED}");
}

TEST(UsbInterfacePathTest, ParsesALowerCasedPathBack) {
  const auto parsed = ParseInterfacePath("\\\\?\\usb#vid_abcd&pid_00ef&mi_0a#3.17#{a5dcbf10-6530-11d2-901f-00c04fb951ed}");
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(parsed->id.vendorId, 0xABCD);
  EXPECT_EQ(parsed->id.productId, 0x00EF);
  EXPECT_EQ(parsed->id.interfaceNumber, 0x0A);
  EXPECT_EQ(parsed->instance, "3.17");
}

TEST(UsbInterfacePathTest, RefusesOtherForms) {
  const std::string guid = "#{A5DCBF10-6530-11D2-901F-00C04FB951ED}";
  EXPECT_FALSE(ParseInterfacePath(""));
  EXPECT_FALSE(ParseInterfacePath("\\\\?\\USB#VID_12&PID_0001&MI_04#1.2" + guid));
  EXPECT_FALSE(ParseInterfacePath("\\\\?\\USB#VID_1209&PID_0001&MI_04#1.2#{00000000}"));
  EXPECT_FALSE(ParseInterfacePath("\\\\?\\HID#VID_1209&PID_0001&MI_04#1.2" + guid));
  EXPECT_FALSE(ParseInterfacePath("\\\\?\\USB#VID_1209&PID_0001&MI_04"));
}

TEST(UsbInterfacePathTest, ComparesIgnoringCase) {
  EXPECT_TRUE(SamePath("\\\\?\\USB#VID_1209", "\\\\?\\usb#vid_1209"));
  EXPECT_FALSE(SamePath("\\\\?\\USB#VID_1209", "\\\\?\\USB#VID_1208"));
}

}  // namespace
}  // namespace ferrolt::platform
