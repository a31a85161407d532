#include "platform/libusb/LibusbBackend.h"

#include <gtest/gtest.h>

namespace ferrolt::platform {
namespace {

// Given a path naming no present device, or no path at all, nothing opens.
// (Listing is the USB suite's, on its emulated bus.)
TEST(LibusbBackendTest, OpensNothingAbsentOrMalformed) {
  auto backend = CreateLibusbBackend();
  backend->ListInterfaces();
  EXPECT_EQ(backend->Open("\\\\?\\usb#vid_1209&pid_0001&mi_04#999.999#{a5dcbf10-6530-11d2-901f-00c04fb951ed}"),
            nullptr);
  EXPECT_EQ(backend->Open("not a path"), nullptr);
}

}  // namespace
}  // namespace ferrolt::platform
