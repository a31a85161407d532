#include <gtest/gtest.h>

#include <cstring>

#include "devsim/DeviceLimits.h"
#include "tests/devsim/DeviceHarness.h"

namespace ferrolt::devsim::test {
namespace {

namespace fs = std::filesystem;
constexpr auto kCommandWait = 5000ms;

// Given CLI mode on, a command's output streams back in checked type-4
// packets of at most 57 bytes, closed by the end text.
class CliCommand : public ::testing::Test {
 protected:
  explicit CliCommand(HarnessOptions options = {}) : harness_(options) { harness_.Text(kTypeCli, "CLI On"); }

  std::vector<Block> Run(const std::string& command, std::chrono::milliseconds wait = kCommandWait) {
    harness_.Text(kTypeCli, command);
    return harness_.CollectCommand(wait);
  }

  DeviceHarness harness_;
};

TEST_F(CliCommand, OutputArrivesWholeInSmallCheckedPacketsThenTheEndText) {
  const auto blocks = Run("seq 1 200");
  ASSERT_FALSE(blocks.empty());
  std::string expected;
  for (int i = 1; i <= 200; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(OutputOf(blocks), expected);
  for (const Block& block : blocks) {
    EXPECT_EQ(TypeOf(block), kTypeCli);
    EXPECT_EQ(NumberOf(block), 0u);
    EXPECT_LE(LengthOf(block), 57);
    EXPECT_TRUE(CrcMatches(block));
  }
  EXPECT_EQ(PayloadText(blocks.back()), "ending testdata");
  EXPECT_EQ(LengthOf(blocks.back()), 57);
  EXPECT_FALSE(harness_.Dev().Busy());
}

TEST_F(CliCommand, MergesStderrAndRunsInTheRootFolder) {
  const auto blocks = Run("echo out; echo err >&2; pwd");
  const std::string root = fs::canonical(harness_.Dev().Root()).string();
  EXPECT_EQ(OutputOf(blocks), "out\nerr\n" + root + "\n");
}

TEST_F(CliCommand, A57ByteCommandNeedsNoTerminator) {
  const std::string command = "echo " + std::string(52, 'z');
  ASSERT_EQ(command.size(), 57u);
  EXPECT_EQ(OutputOf(Run(command)), std::string(52, 'z') + "\n");
}

TEST_F(CliCommand, KeepsTheInQueueShortWhileTheHostDoesNotRead) {
  harness_.Text(kTypeCli, "seq 1 20000");
  const auto deadline = std::chrono::steady_clock::now() + 300ms;
  while (std::chrono::steady_clock::now() < deadline) {
    harness_.Dev().Poll();
    ASSERT_LE(harness_.Dev().QueuedInBlocks(), limits::kMaxQueuedStreamBlocks);
    std::this_thread::sleep_for(2ms);
  }
  std::vector<Block> blocks;
  while (auto block = harness_.Dev().PopInBlock()) blocks.push_back(*block);
  for (const Block& block : harness_.CollectCommand(kCommandWait)) blocks.push_back(block);
  std::string expected;
  for (int i = 1; i <= 20000; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(OutputOf(blocks), expected);
}

TEST_F(CliCommand, AClosedLinkKillsTheRunningCommand) {
  harness_.Text(kTypeCli, "sleep 30");
  harness_.Dev().Poll();
  EXPECT_TRUE(harness_.Dev().Busy());
  harness_.Dev().OnLinkClosed();
  EXPECT_FALSE(harness_.Dev().Busy());
  EXPECT_NE(harness_.Events().find("cli: link closed, command killed"), std::string::npos);
}

// Given a command that outlives the time bound, it is killed with its
// children and still ended.
class CliTimeout : public CliCommand {
 protected:
  CliTimeout() : CliCommand({.cliTimeout = std::chrono::seconds(1)}) {}
};

TEST_F(CliTimeout, KilledCommandIsMarkedAndEnded) {
  const auto start = std::chrono::steady_clock::now();
  const auto blocks = Run("echo started; sleep 30 & sleep 30", 8000ms);
  const auto took = std::chrono::steady_clock::now() - start;
  ASSERT_FALSE(blocks.empty());
  EXPECT_EQ(PayloadText(blocks.back()), "ending testdata");
  EXPECT_EQ(OutputOf(blocks), "started\n[timed out]\n");
  EXPECT_GE(took, 900ms);
  EXPECT_LT(took, 6000ms);
}

// Given output faults, the chosen packet is damaged or the end never comes.
class CliFaults : public ::testing::Test {};

TEST_F(CliFaults, CorruptsOnlyTheKthOutputPacket) {
  DeviceHarness harness({.faults = {{"corrupt-cli-crc", "2"}}});
  harness.Text(kTypeCli, "CLI On");
  harness.Text(kTypeCli, "seq 1 100");
  const auto blocks = harness.CollectCommand(kCommandWait);
  ASSERT_GE(blocks.size(), 4u);
  for (size_t i = 0; i < blocks.size(); ++i) EXPECT_EQ(CrcMatches(blocks[i]), i != 1) << i;
}

TEST_F(CliFaults, NoEndTextLeavesTheOutputOpen) {
  DeviceHarness harness({.faults = {{"cli-no-end", ""}}});
  harness.Text(kTypeCli, "CLI On");
  harness.Text(kTypeCli, "echo hi");
  const auto blocks = harness.CollectCommand(1000ms);
  EXPECT_EQ(OutputOf(blocks), "hi\n");
  for (const Block& block : blocks) EXPECT_NE(PayloadText(block), "ending testdata");
  EXPECT_FALSE(harness.Dev().Busy());
}

// Given a root, CLI mode follows On and Off and survives a new device on it.
TEST(CliMode, OffRefusesCommandsWithoutRunningThem) {
  DeviceHarness harness;
  harness.Text(kTypeCli, "touch ran");
  const auto blocks = harness.CollectCommand(kCommandWait);
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(OutputOf(blocks), "CLI mode is off: send CLI On first\n");
  EXPECT_EQ(PayloadText(blocks.back()), "ending testdata");
  EXPECT_FALSE(fs::exists(harness.Dev().Root() / "ran"));
}

TEST(CliMode, PersistsAcrossDevicesOnTheSameRoot) {
  TempDir root;
  { DeviceHarness(HarnessOptions{}, root.Path()).Text(kTypeCli, "CLI On"); }
  {
    DeviceHarness second({}, root.Path());
    second.Text(kTypeCli, "echo on");
    EXPECT_EQ(OutputOf(second.CollectCommand(kCommandWait)), "on\n");
    second.Text(kTypeCli, "CLI Off");
    EXPECT_NE(second.Events().find("cli mode off"), std::string::npos);
  }
  DeviceHarness third({}, root.Path());
  third.Text(kTypeCli, "echo on");
  EXPECT_EQ(OutputOf(third.CollectCommand(kCommandWait)), "CLI mode is off: send CLI On first\n");
}

}  // namespace
}  // namespace ferrolt::devsim::test
