#include "platform/winusb/SetupApiListing.h"

#include <gtest/gtest.h>

namespace ferrolt::platform {
namespace {

// Given a machine without USB devices (Wine has none), SetupAPI lists the
// interface class and runs to its end with nothing in it.
TEST(SetupApiListingTest, RunsToTheEndOfAnEmptyList) {
  const InterfaceListing listing = ListUsbDeviceInterfaces();
  EXPECT_TRUE(listing.listed);
  EXPECT_TRUE(listing.paths.empty());
  EXPECT_EQ(listing.lastError, kErrorNoMoreItems);
}

}  // namespace
}  // namespace ferrolt::platform
