#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/link/LinkFixture.h"

namespace ferrolt::test {
namespace {

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

constexpr int kProduct = 0x0001;
constexpr int kVendor = 0x1209;
constexpr uint32_t kNoMoreItems = platform::kErrorNoMoreItems;
constexpr int32_t kNotFoundResult = static_cast<int32_t>(0x80070103);
constexpr int32_t kGeneralFailureResult = static_cast<int32_t>(0x8007001F);
constexpr const char* kNotFoundLines = "Device not found.\nGeneral failure. GetLastError returned 80070103.\n";
constexpr const char* kGeneralFailureLine = "General failure. GetLastError returned 8007001F.\n";

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

// Given the listed interface paths, the search picks the device's vendor
// interface, lower-cased, and prints exactly the lines a user sees when it
// cannot, with the Windows error number.
TEST_F(DeviceDiscovery, PicksTheVendorInterfaceOrPrintsWhyNot) {
  struct Case {
    const char* name;
    bool listed;
    std::vector<std::string> paths;
    uint32_t lastError;
    int32_t result;
    std::string path;  // the path found, when result is 0
    int notFound;      // -1: the caller does not ask
    const char* printed;
  };
  const std::string vendorInterface = "\\\\?\\usb#vid_1209&pid_0001&mi_04#6&1&0&0004#{a5dc}";
  const Case cases[] = {
      {"vendor interface", true, {"\\\\?\\usb#vid_1209&pid_0001&mi_00#6&1&0&0000#{a5dc}", vendorInterface},
       kNoMoreItems, 0, vendorInterface, 0, ""},
      {"upper case", true, {"\\\\?\\USB#VID_1209&PID_0001&MI_04#7&ABC&0&0004#{A5DC}"}, kNoMoreItems, 0,
       "\\\\?\\usb#vid_1209&pid_0001&mi_04#7&abc&0&0004#{a5dc}", 0, ""},
      {"ids end at the first non-hex character", true, {"\\\\?\\usb#vid_1209&pid_1&mi_04#x"}, kNoMoreItems, 0,
       "\\\\?\\usb#vid_1209&pid_1&mi_04#x", 0, ""},
      {"other ids or missing markers", true,
       {"\\\\?\\usb#vid_1208&pid_0001&mi_04#x", "\\\\?\\usb#vid_1209&pid_0011&mi_04#x", "\\\\?\\usb#vid_1209#mi_04",
        "\\\\?\\usb&pid_0001&mi_04#vid_1209"},
       kNoMoreItems, kNotFoundResult, "", 1, kNotFoundLines},
      {"not attached", true, {}, kNoMoreItems, kNotFoundResult, "", 1, kNotFoundLines},
      {"not attached, not asked", true, {}, kNoMoreItems, kNotFoundResult, "", -1,
       "General failure. GetLastError returned 80070103.\n"},
      {"listing stopped early", true, {}, platform::kErrorGenFailure, kGeneralFailureResult, "", 0,
       kGeneralFailureLine},
      {"listing failed", false, {}, platform::kErrorGenFailure, kGeneralFailureResult, "", 0,
       "Couldn't find the Device GUID\n"},
      {"no error number still fails", true, {}, 0, kGeneralFailureResult, "", 0, kGeneralFailureLine},
      {"out of memory, silently", true, {}, platform::kErrorNotEnoughMemory, kHresultOutOfMemory, "", 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.listed)
      backend.SetPaths(c.paths, c.lastError);
    else
      backend.FailListing(c.lastError);
    std::string path;
    int notFound = 7;
    EXPECT_EQ(Find(&path, c.notFound < 0 ? nullptr : &notFound), c.result);
    if (c.result == 0) {
      EXPECT_EQ(path, c.path);
    }
    if (c.notFound >= 0) {
      EXPECT_EQ(notFound, c.notFound);
    }
    EXPECT_EQ(printed, c.printed);
  }
}

// Given an interface registered only under its driver package's own
// interface class, the second search finds it when the listing has no
// match, and is not asked when it has; what it finds must name the device
// too, or the not-found lines stand as ever.
TEST_F(DeviceDiscovery, TheRegisteredInterfaceIsTheSecondSearch) {
  const std::string listed = "\\\\?\\usb#vid_1209&pid_0001&mi_04#6&1&0&0004#{a5dc}";
  const std::string registered = "\\\\?\\USB#VID_1209&PID_0001&MI_04#7&2&0&0004#{88BAE032-5A81-49F0-BC3D-A4FF138216D6}";
  backend.SetRegisteredPaths({"\\\\?\\usb#vid_1209&pid_0002&mi_04#x", registered});
  std::string path;
  int notFound = 7;

  backend.SetPaths({listed});
  EXPECT_EQ(Find(&path, &notFound), 0);
  EXPECT_EQ(path, listed);
  EXPECT_EQ(backend.RegisteredSearches(), 0);

  backend.SetPaths({"\\\\?\\usb#vid_1209&pid_0001#6&1&0&0004#{a5dc}"});
  EXPECT_EQ(Find(&path, &notFound), 0);
  EXPECT_EQ(path, "\\\\?\\usb#vid_1209&pid_0001&mi_04#7&2&0&0004#{88bae032-5a81-49f0-bc3d-a4ff138216d6}");
  EXPECT_EQ(notFound, 0);
  EXPECT_EQ(printed, "");

  backend.SetRegisteredPaths({"\\\\?\\usb#vid_1209&pid_0001&mi_00#x"});
  EXPECT_EQ(Find(&path, &notFound), kNotFoundResult);
  EXPECT_EQ(notFound, 1);
  EXPECT_EQ(printed, kNotFoundLines);
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
  EXPECT_EQ(link.FindDevicePath(kProduct, kVendor, small, sizeof(small), nullptr), kNotFoundResult);
  GetCapturedStdout();
  EXPECT_EQ(std::string(small), "\\\\?\\usb#vid_120");
}

TEST(HresultFromWin32, MapsPositiveErrorsIntoTheWin32Facility) {
  EXPECT_EQ(HresultFromWin32(259), kNotFoundResult);
  EXPECT_EQ(HresultFromWin32(0x12345), static_cast<int32_t>(0x80072345));
  EXPECT_EQ(HresultFromWin32(0), 0);
  EXPECT_EQ(HresultFromWin32(0x80004005), static_cast<int32_t>(0x80004005));
}

}  // namespace
}  // namespace ferrolt::test
