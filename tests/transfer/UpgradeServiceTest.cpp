// The emulated device's side of the upgrade where no host would lead it:
// a bundle that ends short, a count that does not fit its size, a device
// that never reports the end, a bundle header. Everything a host does reach
// is in the upgrade table (UpgradeDevsimTest).
#include <gtest/gtest.h>

#include <cstring>

#include "devsim/Bundle.h"
#include "devsim/DevicePackets.h"
#include "devsim/FileServices.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::devsim {
namespace {

constexpr size_t kPiece = 57;

class FakeDevice final : public DeviceContext {
 public:
  explicit FakeDevice(const std::filesystem::path& root) : root_(root) {}
  void Send(const Block& block) override { sent.push_back(block); }
  size_t QueuedInBlocks() const override { return sent.size(); }
  const std::filesystem::path& Root() const override { return root_; }
  std::filesystem::path DevicePathToLocal(const std::string& path) const override { return root_ / path; }
  std::string Version() const override { return version; }
  void SetVersion(const std::string& v) override { version = v; }
  const FaultPlan& Faults() const override { return faults; }
  void Note(const std::string&) override {}

  std::vector<Block> sent;
  std::string version = "1.0.0";
  FaultPlan faults;

 private:
  std::filesystem::path root_;
};

Block RawBlock(const std::string& text) {
  Block block{};
  std::memcpy(block.data(), text.data(), std::min(text.size(), block.size() - 1));
  return block;
}

// Given a device and a bundle, each test streams packets and checks what the
// device answered and stored.
class UpgradeService : public ::testing::Test {
 protected:
  UpgradeService() : device_(dir_.Path()), service_(CreateUpgradeService()) {}

  void Start(const std::string& bundle) {
    bundle_ = bundle;
    Offer(RawBlock("Starting Upgrade " + std::to_string(bundle.size()) + " " + std::to_string(Count())));
  }
  uint32_t Count() const { return static_cast<uint32_t>((bundle_.size() + kPiece - 1) / kPiece); }
  Block Data(uint32_t n) const {
    const size_t length = std::min(kPiece, bundle_.size() - n * kPiece);
    return MakePacket(kTypeUpgrade, n, reinterpret_cast<const uint8_t*>(bundle_.data()) + n * kPiece, length);
  }
  void Offer(const Block& block) { ASSERT_TRUE(service_->Accept(block, device_)); }
  void SendData(uint32_t first, uint32_t last) {
    for (uint32_t n = first; n <= last; ++n) Offer(Data(n));
  }
  void End() { Offer(MakeTextPacket(kTypeUpgrade, "Ending Upgrade")); }
  std::string Stored() const { return test::ReadFile(BundleImagePath(dir_.Path())); }
  std::string LastStatus() const {
    return device_.sent.empty() || TypeOf(device_.sent.back()) != kTypeUpgrade ? ""
                                                                                : PayloadText(device_.sent.back());
  }

  test::TempDir dir_;
  FakeDevice device_;
  std::unique_ptr<Service> service_;
  std::string bundle_;
};

// A start whose count does not fit its size fails like a short bundle.
TEST_F(UpgradeService, ReportsFailureForAShortBundleOrAMismatchedCount) {
  Start(test::RandomBytes(kPiece * 4, 5));
  SendData(0, 2);
  End();
  EXPECT_NE(LastStatus().find("Failed"), std::string::npos);
  EXPECT_EQ(LastStatus().find("ending"), std::string::npos);

  service_ = CreateUpgradeService();
  device_.sent.clear();
  bundle_ = test::RandomBytes(kPiece * 2, 6);
  Offer(RawBlock("Starting Upgrade 114 7"));
  SendData(0, 1);
  End();
  EXPECT_NE(LastStatus().find("Failed"), std::string::npos);
}

// Given fault options, the device bends the exchange as they name.
class UpgradeServiceFaults : public UpgradeService {};

TEST_F(UpgradeServiceFaults, NeverAnswersTheEndWithNoEndText) {
  device_.faults.Add("no-end-text", "");
  Start("abc");
  SendData(0, 0);
  End();
  EXPECT_TRUE(device_.sent.empty());
  EXPECT_EQ(Stored(), bundle_);
}

TEST(BundleHeader, ReadsTheVersionFromAWellFormedFirstLineOnly) {
  EXPECT_EQ(VersionFromHeader("FERROLT-BUNDLE version=3.1.0-rc1\r\nrest"), "3.1.0-rc1");
  EXPECT_EQ(VersionFromHeader("FERROLT-BUNDLE version=3.1.0"), std::nullopt);  // no line end
  EXPECT_EQ(VersionFromHeader("FERROLT-BUNDLE version=\n"), std::nullopt);
  EXPECT_EQ(VersionFromHeader("FERROLT-BUNDLE version=1 2\n"), std::nullopt);
  EXPECT_EQ(VersionFromHeader("ferrolt-bundle version=1.0\n"), std::nullopt);
}

}  // namespace
}  // namespace ferrolt::devsim
