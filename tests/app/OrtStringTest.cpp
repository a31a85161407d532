#include <gtest/gtest.h>

#include "app/OrtString.h"

namespace ferrolt {
namespace {

// Given startort's arguments, it joins them behind "ort start" with a final blank.
TEST(OrtStringTest, HelpExampleAndAlone) {
  const std::string example = BuildOrtString({"startort", "extmic", "reboot", "5", "duration", "20"});
  EXPECT_EQ(example, "ort start extmic reboot 5 duration 20 ");
  EXPECT_EQ(example.size(), 38u);
  EXPECT_EQ(BuildOrtString({"startort"}), "ort start");
  EXPECT_EQ(BuildOrtString({"startort", "reboot"}), "ort start reboot ");
}

}  // namespace
}  // namespace ferrolt
