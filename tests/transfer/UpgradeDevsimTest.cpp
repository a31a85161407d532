// The upgrade over the emulator link to a running ferrolt-devsim: whatever
// the device refuses on the way, the bundle it stores equals the file.
#include <gtest/gtest.h>

#include "devsim/Bundle.h"
#include "tests/transfer/TransferHarness.h"

namespace ferrolt::test {
namespace {

constexpr size_t kPiece = 57;
// A few hundred KiB: thousands of packets, so NACKs land mid-stream.
constexpr size_t kLargeBundle = 300 * 1024;

// Given a device started with the fault options, an upgrade of a bundle ...
class UpgradeOverEmulator : public ::testing::Test {
 protected:
  // Upgrades with a bundle of size bytes; returns the console output.
  std::string Upgrade(size_t size, const std::vector<std::string>& faults) {
    root_ = MakeRoot(dir_);
    harness_ = std::make_unique<TransferHarness>(root_, faults);
    EXPECT_TRUE(harness_->server.Running());
    bundle_ = "FERROLT-BUNDLE version=9.8.7\n" + RandomBytes(size, static_cast<unsigned>(size));
    bundle_.resize(size);
    path_ = dir_ / "bundle.img";
    WriteFile(path_, bundle_);
    return harness_->Run([&](DeviceAdmin& admin) {
      return admin.UpgradeBundleAsync(path_.string(), &harness_->progress, &harness_->log, false);
    });
  }
  std::string Stored() const { return ReadFile(devsim::BundleImagePath(root_)); }
  bool Completed() const { return harness_->log.Has("Please wait until reboot of device is done."); }

  TempDir dir_;
  fs::path root_;
  fs::path path_;
  std::string bundle_;
  std::unique_ptr<TransferHarness> harness_;
};

TEST_F(UpgradeOverEmulator, StoresBundlesAroundThePacketSize) {
  for (size_t size : {size_t{0}, kPiece, kPiece + 1}) {
    SCOPED_TRACE(size);
    const std::string console = Upgrade(size, {});
    EXPECT_TRUE(Completed());
    EXPECT_EQ(Stored(), bundle_);
    EXPECT_NE(console.find("File Size = " + std::to_string(size) + "\n"), std::string::npos);
    harness_.reset();
  }
}

TEST_F(UpgradeOverEmulator, StoresALargeBundleAndReportsItsVersion) {
  Upgrade(kLargeBundle, {});
  EXPECT_TRUE(Completed());
  EXPECT_EQ(Stored(), bundle_);
  EXPECT_TRUE(harness_->log.Has("Upgrade complete, ending update"));
  EXPECT_NE(harness_->server.Events().find("installed version 9.8.7"), std::string::npos);
}

// Given one fault option set, the bundle still arrives whole.
class UpgradeDespiteFault : public UpgradeOverEmulator,
                            public ::testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(UpgradeDespiteFault, StoresTheBundle) {
  const std::string console = Upgrade(kLargeBundle, GetParam());
  EXPECT_TRUE(Completed());
  EXPECT_EQ(Stored(), bundle_);
}

INSTANTIATE_TEST_SUITE_P(Faults, UpgradeDespiteFault,
                         ::testing::Values(std::vector<std::string>{"nack=3,100,2000"},
                                           std::vector<std::string>{"nack-always=50"},
                                           std::vector<std::string>{"corrupt=7,1500"},
                                           std::vector<std::string>{"nack-beyond=20"},
                                           std::vector<std::string>{"double-nack=400"},
                                           std::vector<std::string>{"corrupt-status-crc"},
                                           std::vector<std::string>{"nack=10", "corrupt=900", "double-nack=3000"}));

TEST_F(UpgradeOverEmulator, GoesBackToTheNackedPacketOnTheConsole) {
  const std::string console = Upgrade(kLargeBundle, {"nack=100"});
  EXPECT_NE(console.find("NACKED PACKET      = 0a 64 00 00 00 01 01 "), std::string::npos);
  EXPECT_NE(console.find("Sequence error\n"), std::string::npos);
  EXPECT_NE(console.find("Resending NACK packet, packet No : 100\n"), std::string::npos);
  EXPECT_EQ(Stored(), bundle_);
}

}  // namespace
}  // namespace ferrolt::test
