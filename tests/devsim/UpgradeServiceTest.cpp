// The emulated device's side of the upgrade where no host would lead it:
// a bundle that ends short, a count that does not fit its size, a device
// that never reports the end, a bundle header. Everything a host does reach
// is in the upgrade table (UpgradeDevsimTest).
#include <gtest/gtest.h>

#include <algorithm>

#include "devsim/Bundle.h"
#include "tests/devsim/DeviceHarness.h"

namespace ferrolt::devsim::test {
namespace {

constexpr size_t kPiece = 57;

// Streams the start text (with count packets, or as many as the bundle
// needs), the first `sent` data packets and the end packet; returns the
// device's status replies.
std::vector<std::string> Stream(DeviceHarness& device, const std::string& bundle, size_t sent, size_t count = 0) {
  if (count == 0) count = (bundle.size() + kPiece - 1) / kPiece;
  device.Dev().OnOutBlock(RawBlock("Starting Upgrade " + std::to_string(bundle.size()) + " " + std::to_string(count)));
  for (uint32_t n = 0; n < sent; ++n) {
    const size_t length = std::min(kPiece, bundle.size() - n * kPiece);
    device.Dev().OnOutBlock(
        MakePacket(kTypeUpgrade, n, reinterpret_cast<const uint8_t*>(bundle.data()) + n * kPiece, length));
  }
  device.Text(kTypeUpgrade, "Ending Upgrade");
  std::vector<std::string> statuses;
  for (const Block& block : device.Drain())
    if (TypeOf(block) == kTypeUpgrade) statuses.push_back(PayloadText(block));
  return statuses;
}

bool Failed(const std::vector<std::string>& statuses) {
  return statuses.size() == 1 && statuses[0].rfind("Upgrade Failed", 0) == 0;
}

// A start whose count does not fit its size fails like a short bundle.
TEST(UpgradeService, ReportsFailureForAShortBundleOrAMismatchedCount) {
  DeviceHarness shortBundle;
  EXPECT_TRUE(Failed(Stream(shortBundle, ferrolt::test::RandomBytes(kPiece * 4, 5), 3)));
  DeviceHarness mismatched;
  EXPECT_TRUE(Failed(Stream(mismatched, ferrolt::test::RandomBytes(kPiece * 2, 6), 2, 7)));
}

// A whole bundle with a version header installs that version.
TEST(UpgradeService, InstallsTheVersionOfAWholeBundle) {
  DeviceHarness device;
  const std::string bundle = "FERROLT-BUNDLE version=5.6.7\n" + ferrolt::test::RandomBytes(4000, 22);
  EXPECT_EQ(Stream(device, bundle, (bundle.size() + kPiece - 1) / kPiece),
            std::vector<std::string>{"Upgrade complete, ending update"});
  EXPECT_EQ(device.Dev().Version(), "5.6.7");
}

TEST(UpgradeService, NeverAnswersTheEndWithNoEndText) {
  DeviceHarness device({.faults = {{"no-end-text", ""}}});
  EXPECT_TRUE(Stream(device, "abc", 1).empty());
  EXPECT_EQ(ferrolt::test::ReadFile(BundleImagePath(device.Dev().Root())), "abc");
}

TEST(BundleHeader, ReadsTheVersionFromAWellFormedFirstLineOnly) {
  EXPECT_EQ(VersionFromHeader("FERROLT-BUNDLE version=3.1.0-rc1\r\nrest"), "3.1.0-rc1");
  EXPECT_EQ(VersionFromHeader("FERROLT-BUNDLE version=3.1.0"), std::nullopt);  // no line end
  EXPECT_EQ(VersionFromHeader("FERROLT-BUNDLE version=\n"), std::nullopt);
  EXPECT_EQ(VersionFromHeader("FERROLT-BUNDLE version=1 2\n"), std::nullopt);
  EXPECT_EQ(VersionFromHeader("ferrolt-bundle version=1.0\n"), std::nullopt);
}

}  // namespace
}  // namespace ferrolt::devsim::test
