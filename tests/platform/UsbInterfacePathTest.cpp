#include "platform/UsbInterfacePath.h"

#include <gtest/gtest.h>

namespace ferrolt::platform {
namespace {

// Given a path the link has lower-cased, the ids and the place parse back;
// a path of any other form parses to nothing. (The emulator tests check the
// formatted form and the case-blind comparison.)
TEST(UsbInterfacePathTest, ParsesALowerCasedPathAndRefusesOtherForms) {
  const auto parsed = ParseInterfacePath("\\\\?\\usb#vid_abcd&pid_00ef&mi_0a#3.17#{a5dcbf10-6530-11d2-901f-00c04fb951ed}");
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(parsed->id.vendorId, 0xABCD);
  EXPECT_EQ(parsed->id.productId, 0x00EF);
  EXPECT_EQ(parsed->id.interfaceNumber, 0x0A);
  EXPECT_EQ(parsed->instance, "3.17");

  const std::string guid = "#{A5DCBF10-6530-11D2-901F-00C04FB951ED}";
  EXPECT_FALSE(ParseInterfacePath(""));
  EXPECT_FALSE(ParseInterfacePath("\\\\?\\USB#VID_12&PID_0001&MI_04#1.2" + guid));
  EXPECT_FALSE(ParseInterfacePath("\\\\?\\USB#VID_1209&PID_0001&MI_04#1.2#{00000000}"));
  EXPECT_FALSE(ParseInterfacePath("\\\\?\\HID#VID_1209&PID_0001&MI_04#1.2" + guid));
  EXPECT_FALSE(ParseInterfacePath("\\\\?\\USB#VID_1209&PID_0001&MI_04"));
}

}  // namespace
}  // namespace ferrolt::platform
