#include <gtest/gtest.h>

#include <fstream>

#include "tests/devsim/DeviceHarness.h"

namespace ferrolt::devsim::test {
namespace {

namespace fs = std::filesystem;

std::vector<Block> AskVersion(DeviceHarness& harness) {
  harness.Text(kTypeVersion, "Version Retrieval");
  return harness.Drain();
}

// Given a version request, the device answers with the root's version text
// as its faults shape the reply; any other text or a damaged block gets none.
TEST(DeviceVersion, AVersionFileEditedByHandWinsOverTheInitialVersion) {
  TempDir root;
  { DeviceHarness first({.initialVersion = "3.0.0"}, root.Path()); }
  std::ofstream(root / "version") << "4.1.7\n";  // edited by hand, with a line break
  DeviceHarness second({.initialVersion = "9.9.9"}, root.Path());
  EXPECT_EQ(PayloadText(AskVersion(second).at(0)), "4.1.7");
}

TEST(DeviceVersion, FaultsRetypeOrSilenceTheReply) {
  DeviceHarness retyped({.faults = {{"version-reply-type", "3"}}});
  const Block reply = AskVersion(retyped).at(0);
  EXPECT_EQ(TypeOf(reply), 3);
  EXPECT_TRUE(CrcMatches(reply));
  DeviceHarness silent({.faults = {{"silent-version", ""}}});
  EXPECT_TRUE(AskVersion(silent).empty());
}

TEST(DeviceVersion, OtherTextsAndBadCrcAreNotAnswered) {
  DeviceHarness harness;
  harness.Text(kTypeVersion, "Version Retrieva");
  Block damaged = MakeTextPacket(kTypeVersion, "Version Retrieval");
  damaged[63] ^= 0x01;
  harness.Dev().OnOutBlock(damaged);
  EXPECT_TRUE(harness.Drain().empty());
  EXPECT_NE(harness.Events().find("unhandled block 0200000000395665"), std::string::npos);
}

// Given a device path, the device maps it inside its root or nowhere.
TEST(DeviceRoot, DevicePathsMapInsideTheRootOrNowhere) {
  DeviceHarness harness;
  const Device& device = harness.Dev();
  const fs::path root = device.Root();
  EXPECT_EQ(device.DevicePathToLocal("/tmp/a.txt"), root / "tmp/a.txt");
  EXPECT_EQ(device.DevicePathToLocal("/var/log/../log/messages"), root / "var/log/messages");
  for (const char* outside : {"/tmp/../../etc/passwd", "/..", "tmp/relative"})
    EXPECT_TRUE(device.DevicePathToLocal(outside).empty()) << outside;
}

// Given link faults, the device decides when writes complete.
TEST(DeviceLinkFaults, StallAfterNWithholdsTheRestUntilANewLink) {
  DeviceHarness harness({.faults = {{"stall-writes-after", "2"}}});
  Device& device = harness.Dev();
  device.OnLinkOpened();
  for (int i = 0; i < 4; ++i) harness.Text(kTypeOrt, "x");
  EXPECT_EQ(device.TakeDueCompletions(), 2u);
  EXPECT_FALSE(device.NextDue().has_value());
  device.OnLinkClosed();
  device.OnLinkOpened();
  harness.Text(kTypeOrt, "x");
  EXPECT_EQ(device.TakeDueCompletions(), 1u);
}

TEST(DeviceLinkFaults, DelayedWritesAndRepliesFallDueLater) {
  DeviceHarness harness({.faults = {{"delay-writes", "150"}, {"delay-replies", "150"}}});
  Device& device = harness.Dev();
  device.OnLinkOpened();
  const auto start = Device::Clock::now();
  harness.Text(kTypeVersion, "Version Retrieval");
  EXPECT_EQ(device.TakeDueCompletions(), 0u);
  EXPECT_FALSE(device.PopInBlock().has_value());
  ASSERT_TRUE(device.NextDue().has_value());
  EXPECT_GE(*device.NextDue() - start, 140ms);
  std::this_thread::sleep_until(*device.NextDue() + 20ms);
  EXPECT_EQ(device.TakeDueCompletions(), 1u);
  EXPECT_TRUE(device.PopInBlock().has_value());
}

}  // namespace
}  // namespace ferrolt::devsim::test
