#include "platform/libusb/LibusbBackend.h"

#include <gtest/gtest.h>

#include <chrono>

namespace ferrolt::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kListingBound = 1000ms;

// Given whatever USB this machine has (often none), a listing returns quickly
// with paths in the Windows form, and a path naming no present device opens nothing.
TEST(LibusbBackendTest, ListsQuicklyAndOpensNothingAbsentOrMalformed) {
  auto backend = CreateLibusbBackend();
  for (int round = 0; round < 2; ++round) {
    const auto start = Clock::now();
    const InterfaceListing listing = backend->ListInterfaces();
    EXPECT_LT(Clock::now() - start, kListingBound);
    EXPECT_TRUE(listing.listed);
    EXPECT_EQ(listing.lastError, kErrorNoMoreItems);
    for (const std::string& path : listing.paths) EXPECT_EQ(path.rfind("\\\\?\\USB#VID_", 0), 0u) << path;
  }
  EXPECT_EQ(backend->Open("\\\\?\\usb#vid_1209&pid_0001&mi_04#999.999#{a5dcbf10-6530-11d2-901f-00c04fb951ed}"),
            nullptr);
  EXPECT_EQ(backend->Open("not a path"), nullptr);
}

}  // namespace
}  // namespace ferrolt::platform
