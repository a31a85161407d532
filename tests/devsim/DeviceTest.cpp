#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "tests/devsim/DeviceHarness.h"
#include "tests/support/ClockSlack.h"

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

// (A retyped reply, its CRC right: the scenario table's VersionReplyOfAnotherType.)
TEST(DeviceVersion, SilentVersionAnswersNothing) {
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

// Given links inside the root, a device path resolves with them followed,
// and every service that takes one refuses a path that leaves the root.
TEST(DeviceRoot, EveryDevicePathResolvesInsideTheRootOrNowhere) {
  TempDir outside;
  std::ofstream(outside / "secret") << "secret";
  DeviceHarness harness;
  Device& device = harness.Dev();
  const fs::path root = device.Root();
  fs::create_directory_symlink(outside.Path(), root / "tmp/out");
  fs::create_symlink(outside / "secret", root / "tmp/secret");
  fs::create_symlink(outside / "missing", root / "tmp/dangling");
  fs::create_directory_symlink(root / "var/log", root / "tmp/logs");
  const std::pair<const char*, fs::path> rows[] = {
      {"/tmp/a.txt", root / "tmp/a.txt"},
      {"/var/log/../log/messages", root / "var/log/messages"},
      {"/tmp/logs/messages", root / "var/log/messages"},
      {"/tmp/../../etc/passwd", {}},
      {"/..", {}},
      {"tmp/relative", {}},
      {"/tmp/out/secret", {}},
      {"/tmp/out", {}},
      {"/tmp/secret", {}},
      {"/tmp/dangling", {}},
  };
  harness.Text(kTypeCli, "CLI On");
  for (const auto& [path, local] : rows) {
    EXPECT_EQ(device.DevicePathToLocal(path), local) << path;
    if (!local.empty()) continue;
    harness.Text(kTypeDownload, std::string("Starting download ") + path);
    EXPECT_EQ(PayloadText(harness.Drain().at(0)), "starting download 0 0") << path;
    harness.Text(kTypeCli, std::string("cat ") + path);
    EXPECT_EQ(OutputOf(harness.CollectCommand(1000ms)), std::string("cat: ") + path + ": No such file or directory\n");
  }
}

// Given an upload, the device writes only the packets its start announced,
// into its own /tmp/: a packet number at or past the count, a count that
// does not fit the size, or a /tmp/ that leads out of the root is refused.
TEST(DeviceUpload, WritesOnlyAnnouncedPacketsInsideTheRoot) {
  constexpr uint8_t kAccepted = 0, kRefused = 1, kNoReply = 2;
  struct Row {
    const char* start;
    uint32_t number;
    uint8_t reply;
  };
  const Row rows[] = {
      {"Starting upload 100 2 f", 1, kAccepted},
      {"Starting upload 100 2 f", 2, kRefused},
      {"Starting upload 100 2 f", 0xFFFFFFFF, kRefused},
      {"Starting upload 100 5000000 f", 4000000, kNoReply},
      {"Starting upload -5 0 f", 0, kNoReply},
  };
  const uint8_t payload[57] = {'x'};
  for (const Row& row : rows) {
    DeviceHarness harness;
    harness.Dev().OnOutBlock(RawBlock(row.start));
    harness.Dev().OnOutBlock(MakePacket(kTypeUpload, row.number, payload, sizeof payload));
    const auto replies = harness.Drain();
    ASSERT_EQ(replies.size(), row.reply == kNoReply ? 0u : 1u) << row.start << " " << row.number;
    if (row.reply != kNoReply) {
      EXPECT_EQ(PayloadOf(replies[0])[0], row.reply) << row.number;
    }
    const fs::path partial = harness.Dev().Root() / "tmp/.f.part";
    EXPECT_LE(fs::exists(partial) ? fs::file_size(partial) : 0, 114u) << row.number;
  }
  TempDir outside;
  DeviceHarness moved;
  fs::remove_all(moved.Dev().Root() / "tmp");
  fs::create_directory_symlink(outside.Path(), moved.Dev().Root() / "tmp");
  moved.Dev().OnOutBlock(RawBlock("Starting upload 1 1 f"));
  moved.Dev().OnOutBlock(MakePacket(kTypeUpload, 0, payload, 1));
  moved.Dev().OnOutBlock(RawBlock("Ending upload"));
  EXPECT_TRUE(fs::is_empty(outside.Path()));
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
  EXPECT_GE(*device.NextDue() - start, ferrolt::test::AtLeast(140ms));
  std::this_thread::sleep_until(*device.NextDue() + 20ms);
  EXPECT_EQ(device.TakeDueCompletions(), 1u);
  EXPECT_TRUE(device.PopInBlock().has_value());
}

// Given random faults, the device draws each choice from the seed: the same
// seed makes the same choices, within the ranges given, and a stall refuses
// OUT blocks until it ends.
TEST(DeviceLinkFaults, RandomFaultsReplayTheirSeed) {
  const auto upload = [](unsigned seed) {
    DeviceHarness harness({.faults = {{"jitter-replies", "1-20"},
                                      {"upload-nack-random", "20"},
                                      {"stall-writes-random", "10"},
                                      {"stall-writes-for", "200-1500"}},
                           .seed = seed});
    harness.Dev().OnOutBlock(RawBlock("Starting upload 5700 100 f"));
    const uint8_t payload[kPayloadSize] = {};
    for (uint32_t number = 0; number < 100; ++number) {
      harness.Dev().OnOutBlock(MakePacket(kTypeUpload, number, payload, sizeof payload));
      const std::string events = harness.Events();
      const std::string lastLine = events.substr(events.rfind('\n', events.size() - 2) + 1);
      if (lastLine.find("taking no OUT block") != std::string::npos) {
        EXPECT_FALSE(harness.Dev().TakesOutBlocks());
      }
    }
    return harness.Events();
  };
  const std::string events = upload(5);
  EXPECT_EQ(events, upload(5));
  EXPECT_NE(events, upload(6));
  const std::pair<const char*, NumberRange> draws[] = {{"fault: IN block held back %lld ms", {1, 20}},
                                                       {"fault: taking no OUT block for %lld ms", {200, 1500}}};
  for (const auto& [format, range] : draws) {
    int seen = 0;
    std::istringstream lines(events);
    for (std::string line; std::getline(lines, line);) {
      long long value = -1;
      if (std::sscanf(line.c_str(), format, &value) != 1) continue;
      ++seen;
      EXPECT_TRUE(value >= range.low && value <= range.high) << line;
    }
    EXPECT_GT(seen, 2) << format;
  }
  EXPECT_NE(events.find("upload packet"), std::string::npos) << "no refusal in 100 packets";
}

}  // namespace
}  // namespace ferrolt::devsim::test
