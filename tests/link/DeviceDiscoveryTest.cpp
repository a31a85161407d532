#include <gtest/gtest.h>

#include <string>

#include "tests/link/LinkFixture.h"

namespace ferrolt::test {
namespace {

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

constexpr int kProduct = 0x0001;
constexpr int kVendor = 0x1209;

// Given the listed interface paths, the search picks the device's vendor
// interface and prints exactly the lines a user sees when it cannot.
class DeviceDiscovery : public LinkFixture {
 protected:
  int32_t Find(std::string* out, int* notFound) {
    char path[kDevicePathSize] = {};
    CaptureStdout();
    const int32_t result = link.FindDevicePath(kProduct, kVendor, path, sizeof(path), notFound);
    printed = GetCapturedStdout();
    *out = path;
    return result;
  }

  std::string printed;
};

TEST_F(DeviceDiscovery, TakesOnlyTheVendorInterface) {
  backend.SetPaths({"\\\\?\\usb#vid_1209&pid_0001&mi_00#6&1&0&0000#{a5dc}",
                    "\\\\?\\usb#vid_1209&pid_0001&mi_04#6&1&0&0004#{a5dc}"});
  std::string path;
  int notFound = -1;
  EXPECT_EQ(Find(&path, &notFound), 0);
  EXPECT_EQ(path, "\\\\?\\usb#vid_1209&pid_0001&mi_04#6&1&0&0004#{a5dc}");
  EXPECT_EQ(notFound, 0);
  EXPECT_EQ(printed, "");
}

TEST_F(DeviceDiscovery, UpperCasePathsAreLowerCased) {
  backend.SetPaths({"\\\\?\\USB#VID_1209&PID_0001&MI_04#7&ABC&0&0004#{A5DC}"});
  std::string path;
  EXPECT_EQ(Find(&path, nullptr), 0);
  EXPECT_EQ(path, "\\\\?\\usb#vid_1209&pid_0001&mi_04#7&abc&0&0004#{a5dc}");
}

TEST_F(DeviceDiscovery, ShortIdsParseUpToTheFirstNonHexCharacter) {
  backend.SetPaths({"\\\\?\\usb#vid_1209&pid_1&mi_04#x"});
  std::string path;
  EXPECT_EQ(Find(&path, nullptr), 0);
}

TEST_F(DeviceDiscovery, OtherIdsOrMissingMarkersDoNotMatch) {
  backend.SetPaths({"\\\\?\\usb#vid_1208&pid_0001&mi_04#x", "\\\\?\\usb#vid_1209&pid_0011&mi_04#x",
                    "\\\\?\\usb#vid_1209#mi_04", "\\\\?\\usb&pid_0001&mi_04#vid_1209"});
  std::string path;
  int notFound = 0;
  EXPECT_LT(Find(&path, &notFound), 0);
  EXPECT_EQ(notFound, 1);
}

TEST_F(DeviceDiscovery, NotAttachedPrintsNotFoundAndTheGeneralFailure) {
  backend.SetPaths({});
  std::string path;
  int notFound = 0;
  EXPECT_EQ(Find(&path, &notFound), static_cast<int32_t>(0x80070103));
  EXPECT_EQ(notFound, 1);
  EXPECT_EQ(printed, "Device not found.\nGeneral failure. GetLastError returned 80070103.\n");
}

TEST_F(DeviceDiscovery, WithoutTheFlagOnlyTheGeneralFailureIsPrinted) {
  backend.SetPaths({});
  std::string path;
  EXPECT_LT(Find(&path, nullptr), 0);
  EXPECT_EQ(printed, "General failure. GetLastError returned 80070103.\n");
}

TEST_F(DeviceDiscovery, ListingThatStoppedEarlyReportsItsError) {
  backend.SetPaths({}, platform::kErrorGenFailure);
  std::string path;
  int notFound = 0;
  EXPECT_EQ(Find(&path, &notFound), static_cast<int32_t>(0x8007001F));
  EXPECT_EQ(notFound, 0);
  EXPECT_EQ(printed, "General failure. GetLastError returned 8007001F.\n");
}

TEST_F(DeviceDiscovery, ListingThatFailedPrintsTheGuidLine) {
  backend.FailListing(platform::kErrorGenFailure);
  std::string path;
  int notFound = 0;
  EXPECT_EQ(Find(&path, &notFound), static_cast<int32_t>(0x8007001F));
  EXPECT_EQ(printed, "Couldn't find the Device GUID\n");
  EXPECT_EQ(notFound, 0);
}

TEST_F(DeviceDiscovery, NoErrorNumberStillFails) {
  backend.SetPaths({}, 0);
  std::string path;
  EXPECT_LT(Find(&path, nullptr), 0);
}

TEST_F(DeviceDiscovery, OutOfMemoryFailsSilently) {
  backend.SetPaths({}, platform::kErrorNotEnoughMemory);
  std::string path;
  int notFound = 0;
  EXPECT_EQ(Find(&path, &notFound), kHresultOutOfMemory);
  EXPECT_EQ(printed, "");
}

// Given a path longer than the buffer, it is cut, never overrun.
TEST_F(DeviceDiscovery, LongPathsAreTruncated) {
  backend.SetPaths({"\\\\?\\usb#vid_1209&pid_0001&mi_04#" + std::string(400, 'Q')});
  std::string path;
  EXPECT_EQ(Find(&path, nullptr), 0);
  EXPECT_EQ(path.size(), kDevicePathSize - 1);
  EXPECT_EQ(path.back(), 'q');
  char small[16];
  CaptureStdout();
  EXPECT_EQ(link.FindDevicePath(kProduct, kVendor, small, sizeof(small), nullptr), static_cast<int32_t>(0x80070103));
  GetCapturedStdout();
  EXPECT_EQ(std::string(small), "\\\\?\\usb#vid_120");
}

TEST(HresultFromWin32, MapsPositiveErrorsIntoTheWin32Facility) {
  EXPECT_EQ(HresultFromWin32(259), static_cast<int32_t>(0x80070103));
  EXPECT_EQ(HresultFromWin32(0x12345), static_cast<int32_t>(0x80072345));
  EXPECT_EQ(HresultFromWin32(0), 0);
  EXPECT_EQ(HresultFromWin32(0x80004005), static_cast<int32_t>(0x80004005));
}

}  // namespace
}  // namespace ferrolt::test
