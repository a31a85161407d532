// The upgrade over the emulator link to a running ferrolt-devsim: whatever
// the device refuses on the way, the bundle it stores equals the file.
#include <gtest/gtest.h>

#include "devsim/Bundle.h"
#include "tests/support/DeviceAdminFixture.h"

namespace ferrolt::test {
namespace {

// A few hundred KiB: thousands of packets, so NACKs land mid-stream.
constexpr size_t kLargeBundle = 300 * 1024;

struct UpgradeCase {
  size_t size;
  std::vector<std::string> faults;
};
void PrintTo(const UpgradeCase& c, std::ostream* os) { *os << c.size << " bytes " << testing::PrintToString(c.faults); }

// Given a device started with the fault options, an upgrade of a bundle
// completes and the device stores it byte for byte.
class UpgradeDespiteFault : public DevsimFixture, public testing::WithParamInterface<UpgradeCase> {};

TEST_P(UpgradeDespiteFault, StoresTheBundle) {
  Start(GetParam().faults);
  const size_t size = GetParam().size;
  const std::string bundle = RandomBytes(size, static_cast<unsigned>(size));
  const fs::path path = dir / "bundle.img";
  WriteFile(path, bundle);
  const std::string console = Run([&](DeviceAdmin& a) {
    return a.UpgradeBundleAsync(path.string(), &progress, &log, false);
  });
  EXPECT_TRUE(log.Has("Please wait until reboot of device is done."));
  EXPECT_EQ(ReadFile(devsim::BundleImagePath(root)), bundle);
  EXPECT_NE(console.find("File Size = " + std::to_string(size) + "\n"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Faults, UpgradeDespiteFault,
                         testing::Values(UpgradeCase{57, {}}, UpgradeCase{kLargeBundle, {"nack=3,100,2000"}},
                                         UpgradeCase{kLargeBundle, {"nack-always=50"}},
                                         UpgradeCase{kLargeBundle, {"corrupt=7,1500"}},
                                         UpgradeCase{kLargeBundle, {"nack-beyond=20"}},
                                         UpgradeCase{kLargeBundle, {"double-nack=400"}},
                                         UpgradeCase{kLargeBundle, {"corrupt-status-crc"}},
                                         UpgradeCase{kLargeBundle, {"nack=10", "corrupt=900", "double-nack=3000"}}));

}  // namespace
}  // namespace ferrolt::test
