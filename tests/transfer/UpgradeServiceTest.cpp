// The emulated device's side of the upgrade, driven block by block: its
// sequence and CRC checks, the NACKs it sends, the bundle it stores, its end
// status and the faults that bend them.
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
  // The NACKs sent so far as (number, reason byte).
  std::vector<std::pair<uint32_t, uint8_t>> Nacks() const {
    std::vector<std::pair<uint32_t, uint8_t>> nacks;
    for (const Block& b : device_.sent)
      if (TypeOf(b) == kTypeNack) nacks.emplace_back(NumberOf(b), b[6]);
    return nacks;
  }
  std::string LastStatus() const {
    return device_.sent.empty() || TypeOf(device_.sent.back()) != kTypeUpgrade ? ""
                                                                                : PayloadText(device_.sent.back());
  }

  test::TempDir dir_;
  FakeDevice device_;
  std::unique_ptr<Service> service_;
  std::string bundle_;
};

TEST_F(UpgradeService, NacksABadCrcAndDropsPacketsUntilTheResend) {
  Start(test::RandomBytes(kPiece * 10, 3));
  SendData(0, 2);
  Block bad = Data(3);
  bad[63] ^= 0x5A;
  Offer(bad);
  SendData(4, 6);  // in flight before the host went back: dropped silently
  SendData(3, 9);
  End();
  EXPECT_EQ(Nacks(), (std::vector<std::pair<uint32_t, uint8_t>>{{3, 0}}));
  EXPECT_EQ(Stored(), bundle_);
  EXPECT_EQ(LastStatus(), "Upgrade complete, ending update");
}

TEST_F(UpgradeService, NacksAGapAsASequenceErrorAndIgnoresDuplicates) {
  Start(test::RandomBytes(kPiece * 8, 4));
  SendData(0, 2);
  SendData(4, 5);
  SendData(1, 7);  // 1 and 2 again: already stored, no NACK
  End();
  EXPECT_EQ(Nacks(), (std::vector<std::pair<uint32_t, uint8_t>>{{3, 1}}));
  EXPECT_EQ(Stored(), bundle_);
}

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

TEST_F(UpgradeService, StoresPacketZeroThatLooksLikeTheEndText) {
  std::string bundle = "Ending Upgrade";
  bundle.resize(kPiece * 2, '\0');
  Start(bundle);
  SendData(0, 1);
  End();
  EXPECT_EQ(Stored(), bundle_);
  EXPECT_EQ(LastStatus(), "Upgrade complete, ending update");
}

// Given fault options, the device bends the exchange as they name.
class UpgradeServiceFaults : public UpgradeService {};

TEST_F(UpgradeServiceFaults, NacksOnePacketEveryTimeUpToTheBound) {
  device_.faults.Add("nack-always", "1");
  Start(test::RandomBytes(kPiece * 3, 8));
  Offer(Data(0));
  for (int i = 0; i < 10; ++i) Offer(Data(1));
  Offer(Data(2));
  End();
  EXPECT_EQ(Nacks().size(), 5u);
  EXPECT_EQ(Stored(), bundle_);
}

TEST_F(UpgradeServiceFaults, SendsTwoNacksAndWaitsForTheLaterOne) {
  device_.faults.Add("double-nack", "6");
  Start(test::RandomBytes(kPiece * 9, 11));
  SendData(0, 7);
  SendData(3, 8);  // the host acted on the first NACK: 3 is a duplicate
  End();
  EXPECT_EQ(Nacks(), (std::vector<std::pair<uint32_t, uint8_t>>{{3, 1}, {4, 1}}));
  EXPECT_EQ(Stored(), bundle_);
  EXPECT_EQ(LastStatus(), "Upgrade complete, ending update");
}

TEST_F(UpgradeServiceFaults, SendsTheEndStatusWithABadCrcFirst) {
  device_.faults.Add("corrupt-status-crc", "");
  Start("abc");
  SendData(0, 0);
  End();
  ASSERT_EQ(device_.sent.size(), 2u);
  EXPECT_FALSE(CrcMatches(device_.sent[0]));
  EXPECT_TRUE(CrcMatches(device_.sent[1]));
  EXPECT_EQ(PayloadText(device_.sent[1]), "Upgrade complete, ending update");
}

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
