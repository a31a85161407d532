#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "tests/devsim/DeviceHarness.h"

namespace ferrolt::devsim::test {
namespace {

namespace fs = std::filesystem;

// Given a version request, the device answers with its version text.
class DeviceVersion : public ::testing::Test {
 protected:
  static std::vector<Block> Ask(DeviceHarness& harness) {
    harness.Text(kTypeVersion, "Version Retrieval");
    return harness.Drain();
  }
};

TEST_F(DeviceVersion, RepliesWithTheRootsVersionInOneCheckedPacket) {
  DeviceHarness harness({.initialVersion = "2.5.1"});
  const auto replies = Ask(harness);
  ASSERT_EQ(replies.size(), 1u);
  const uint8_t head[6] = {0x02, 0, 0, 0, 0, 57};
  EXPECT_EQ(std::memcmp(replies[0].data(), head, 6), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(replies[0].data() + 6), 6), std::string("2.5.1\0", 6));
  EXPECT_TRUE(CrcMatches(replies[0]));
  EXPECT_NE(harness.Events().find("version request"), std::string::npos);
}

TEST_F(DeviceVersion, AnExistingVersionFileWinsOverTheInitialVersion) {
  TempDir root;
  { DeviceHarness first({.initialVersion = "3.0.0"}, root.Path()); }
  {
    std::ofstream(root / "version") << "4.1.7\n";  // edited by hand, with a line break
  }
  DeviceHarness second({.initialVersion = "9.9.9"}, root.Path());
  EXPECT_EQ(PayloadText(Ask(second).at(0)), "4.1.7");
}

TEST_F(DeviceVersion, FaultsCorruptRetypeOrSilenceTheReply) {
  DeviceHarness corrupt({.faults = {{"corrupt-version-crc", ""}}});
  EXPECT_FALSE(CrcMatches(Ask(corrupt).at(0)));
  DeviceHarness retyped({.faults = {{"version-reply-type", "3"}}});
  const Block reply = Ask(retyped).at(0);
  EXPECT_EQ(TypeOf(reply), 3);
  EXPECT_TRUE(CrcMatches(reply));
  DeviceHarness silent({.faults = {{"silent-version", ""}}});
  EXPECT_TRUE(Ask(silent).empty());
}

TEST_F(DeviceVersion, OtherTextsAndBadCrcAreNotAnswered) {
  DeviceHarness harness;
  harness.Text(kTypeVersion, "Version Retrieva");
  Block damaged = MakeTextPacket(kTypeVersion, "Version Retrieval");
  damaged[63] ^= 0x01;
  harness.Dev().OnOutBlock(damaged);
  EXPECT_TRUE(harness.Drain().empty());
  const std::string events = harness.Events();
  EXPECT_NE(events.find("unhandled block 0200000000395665"), std::string::npos);
}

// Given the texts the device only records, it notes each and keeps every block raw.
TEST(DeviceRecording, NotesOrtCaptouchAndCancelAndRecordsEveryBlock) {
  DeviceHarness harness;
  Block reboot{};
  const std::string rebootText = "\rreboot\r" + std::string(55, ' ');
  std::memcpy(reboot.data(), rebootText.data(), rebootText.size());
  const std::vector<Block> sent = {MakeTextPacket(kTypeOrt, "ort start extmic reboot 5 "), reboot,
                                   MakeTextPacket(kTypeCancel, "Cancel"), MakeTextPacket(kTypeOrt, "ort end"),
                                   MakeTextPacket(9, "nobody's")};
  for (const Block& block : sent) harness.Dev().OnOutBlock(block);

  const std::string events = harness.Events();
  const size_t ort = events.find("ort: ort start extmic reboot 5 \n");
  const size_t captouch = events.find("captouch reboot\n");
  const size_t cancel = events.find("cancel\n");
  const size_t end = events.find("ort: ort end\n");
  ASSERT_NE(end, std::string::npos);
  EXPECT_TRUE(ort < captouch && captouch < cancel && cancel < end) << events;
  EXPECT_NE(events.find("unhandled block 09"), std::string::npos);

  std::string expected;
  for (const Block& block : sent) expected.append(reinterpret_cast<const char*>(block.data()), 64);
  EXPECT_EQ(harness.Recorded(), expected);
}

// Given a fresh root, the device lays out its folders and keeps paths inside it.
TEST(DeviceRoot, FreshRootHasTmpLogsAndVersion) {
  DeviceHarness harness;
  const fs::path root = harness.Dev().Root();
  EXPECT_TRUE(fs::is_directory(root / "tmp"));
  EXPECT_GT(fs::file_size(root / "var/log/messages"), 0u);
  EXPECT_GT(fs::file_size(root / "var/log/boot.log"), 0u);
  EXPECT_EQ(ferrolt::test::ReadFile(root / "version"), "1.0.0");
}

TEST(DeviceRoot, DevicePathsMapInsideTheRootOrNowhere) {
  DeviceHarness harness;
  const fs::path root = harness.Dev().Root();
  EXPECT_EQ(harness.Dev().DevicePathToLocal("/tmp/a.txt"), root / "tmp/a.txt");
  EXPECT_EQ(harness.Dev().DevicePathToLocal("/var/log/../log/messages"), root / "var/log/messages");
  EXPECT_TRUE(harness.Dev().DevicePathToLocal("/tmp/../../etc/passwd").empty());
  EXPECT_TRUE(harness.Dev().DevicePathToLocal("/..").empty());
  EXPECT_TRUE(harness.Dev().DevicePathToLocal("tmp/relative").empty());
}

// Given link faults, the device decides when writes complete and when the link drops.
class DeviceLinkFaults : public ::testing::Test {
 protected:
  static void SendBlocks(DeviceHarness& harness, int count) {
    for (int i = 0; i < count; ++i) harness.Text(kTypeOrt, "x");
  }
};

TEST_F(DeviceLinkFaults, WithoutFaultsEveryWriteCompletesAtOnce) {
  DeviceHarness harness;
  harness.Dev().OnLinkOpened();
  SendBlocks(harness, 3);
  EXPECT_EQ(harness.Dev().TakeDueCompletions(), 3u);
  EXPECT_FALSE(harness.Dev().DropRequested());
}

TEST_F(DeviceLinkFaults, StallAfterNWithholdsTheRestUntilANewLink) {
  DeviceHarness harness({.faults = {{"stall-writes-after", "2"}}});
  harness.Dev().OnLinkOpened();
  SendBlocks(harness, 4);
  EXPECT_EQ(harness.Dev().TakeDueCompletions(), 2u);
  EXPECT_FALSE(harness.Dev().NextDue().has_value());
  harness.Dev().OnLinkClosed();
  harness.Dev().OnLinkOpened();
  SendBlocks(harness, 1);
  EXPECT_EQ(harness.Dev().TakeDueCompletions(), 1u);
}

TEST_F(DeviceLinkFaults, DropAfterNAsksForTheLinkToCloseAtTheNthBlock) {
  DeviceHarness harness({.faults = {{"drop-after", "2"}}});
  harness.Dev().OnLinkOpened();
  SendBlocks(harness, 1);
  EXPECT_FALSE(harness.Dev().DropRequested());
  SendBlocks(harness, 1);
  EXPECT_TRUE(harness.Dev().DropRequested());
  EXPECT_EQ(harness.Dev().TakeDueCompletions(), 1u);
}

TEST_F(DeviceLinkFaults, DelayedWritesAndRepliesFallDueLater) {
  DeviceHarness harness({.faults = {{"delay-writes", "150"}, {"delay-replies", "150"}}});
  harness.Dev().OnLinkOpened();
  const auto start = Device::Clock::now();
  harness.Text(kTypeVersion, "Version Retrieval");
  EXPECT_EQ(harness.Dev().TakeDueCompletions(), 0u);
  EXPECT_FALSE(harness.Dev().PopInBlock().has_value());
  ASSERT_TRUE(harness.Dev().NextDue().has_value());
  EXPECT_GE(*harness.Dev().NextDue() - start, 140ms);
  std::this_thread::sleep_until(*harness.Dev().NextDue() + 20ms);
  EXPECT_EQ(harness.Dev().TakeDueCompletions(), 1u);
  EXPECT_TRUE(harness.Dev().PopInBlock().has_value());
}

}  // namespace
}  // namespace ferrolt::devsim::test
