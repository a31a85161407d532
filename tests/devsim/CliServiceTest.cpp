#include <gtest/gtest.h>

#include "devsim/DeviceLimits.h"
#include "tests/devsim/DeviceHarness.h"
#include "tests/support/ClockSlack.h"

namespace ferrolt::devsim::test {
namespace {

namespace fs = std::filesystem;
constexpr auto kCommandWait = 5000ms;
constexpr const char* kModeOff = "CLI mode is off: send CLI On first\n";
const HarnessOptions kHostShell{.hostShell = true};

// What `seq 1 count` prints.
std::string Seq(int count) {
  std::string lines;
  for (int i = 1; i <= count; ++i) lines += std::to_string(i) + "\n";
  return lines;
}

std::vector<Block> RunCommand(DeviceHarness& harness, const std::string& command,
                              std::chrono::milliseconds wait = kCommandWait) {
  harness.Text(kTypeCli, command);
  return harness.CollectCommand(wait);
}

// Given CLI mode on, a command's output streams back in checked type-4
// packets of at most 57 bytes, closed by the end text. Those that need a
// program of the host's run with --host-shell.
class CliCommand : public ::testing::Test {
 protected:
  DeviceHarness& Start(const HarnessOptions& options = {}) {
    harness_ = std::make_unique<DeviceHarness>(options);
    harness_->Text(kTypeCli, "CLI On");
    return *harness_;
  }

  std::unique_ptr<DeviceHarness> harness_;
};

TEST_F(CliCommand, OutputAndStderrFromTheRootFolderArriveInSmallCheckedPacketsThenTheEndText) {
  DeviceHarness& device = Start(kHostShell);
  const auto blocks = RunCommand(device, "seq 1 200; echo err >&2; pwd");
  ASSERT_FALSE(blocks.empty());
  EXPECT_EQ(OutputOf(blocks), Seq(200) + "err\n" + fs::canonical(device.Dev().Root()).string() + "\n");
  for (const Block& block : blocks) {
    EXPECT_EQ(TypeOf(block), kTypeCli);
    EXPECT_EQ(NumberOf(block), 0u);
    EXPECT_LE(LengthOf(block), 57);
    EXPECT_TRUE(CrcMatches(block));
  }
  EXPECT_EQ(PayloadText(blocks.back()), "ending testdata");
  EXPECT_EQ(LengthOf(blocks.back()), 57);
  EXPECT_FALSE(device.Dev().Busy());
}

// Without --host-shell, commands come from the built-in set, which sees only
// the root folder and runs no program of the host's.
TEST_F(CliCommand, BuiltinsAnswerFromTheRootAlone) {
  struct Row {
    const char* command;
    const char* output;
  };
  const Row rows[] = {
      {"echo  'a  b'  \"c\";echo -n x", "a  b c\nx"},
      {"pwd; uname; uname -a", "/\nLinux\nLinux device 5.10.0 armv7l\n"},
      {"ls; ls /var/log version", "cli-mode\ntmp\nvar\nversion\n/var/log:\nboot.log\nmessages\nort.log\nversion\n"},
      {"cat var/log/ort.log ../var/log/ort.log", "ort: idle\ncat: ../var/log/ort.log: No such file or directory\n"},
      {"cat /var/log /etc/passwd", "cat: /var/log: Is a directory\ncat: /etc/passwd: No such file or directory\n"},
      {"ls -l /", "ls: invalid option -- 'l'\n"},
      {"touch ran; sh -c 'touch ran'", "sh: touch: not found\nsh: sh: not found\n"},
  };
  DeviceHarness& device = Start();
  for (const Row& row : rows) EXPECT_EQ(OutputOf(RunCommand(device, row.command)), row.output) << row.command;
  EXPECT_FALSE(fs::exists(device.Dev().Root() / "ran"));
}

TEST_F(CliCommand, KeepsTheInQueueShortWhileTheHostDoesNotRead) {
  DeviceHarness& device = Start(kHostShell);
  device.Text(kTypeCli, "seq 1 20000");
  const auto deadline = std::chrono::steady_clock::now() + 300ms;
  while (std::chrono::steady_clock::now() < deadline) {
    device.Dev().Poll();
    ASSERT_LE(device.Dev().QueuedInBlocks(), limits::kMaxQueuedStreamBlocks);
    std::this_thread::sleep_for(2ms);
  }
  std::vector<Block> blocks;
  while (auto block = device.Dev().PopInBlock()) blocks.push_back(*block);
  for (const Block& block : device.CollectCommand(kCommandWait)) blocks.push_back(block);
  EXPECT_EQ(OutputOf(blocks), Seq(20000));
}

TEST_F(CliCommand, AClosedLinkKillsTheRunningCommand) {
  DeviceHarness& device = Start(kHostShell);
  device.Text(kTypeCli, "sleep 30");
  device.Dev().Poll();
  EXPECT_TRUE(device.Dev().Busy());
  device.Dev().OnLinkClosed();
  EXPECT_FALSE(device.Dev().Busy());
  EXPECT_NE(device.Events().find("cli: link closed, command killed"), std::string::npos);
}

// Given a command that outlives the time bound, it is killed with its
// children and still ended.
using CliTimeout = CliCommand;

TEST_F(CliTimeout, KilledCommandIsMarkedAndEnded) {
  DeviceHarness& device = Start({.cliTimeout = std::chrono::seconds(1), .hostShell = true});
  const auto start = std::chrono::steady_clock::now();
  const auto blocks = RunCommand(device, "echo started; sleep 30 & sleep 30", 8000ms);
  const auto took = std::chrono::steady_clock::now() - start;
  ASSERT_FALSE(blocks.empty());
  EXPECT_EQ(PayloadText(blocks.back()), "ending testdata");
  EXPECT_EQ(OutputOf(blocks), "started\n[timed out]\n");
  EXPECT_GE(took, ferrolt::test::AtLeast(900ms));
  EXPECT_LT(took, 6000ms);
}

// Given output faults, the chosen packet is damaged or the end never comes.
using CliFaults = CliCommand;

TEST_F(CliFaults, CorruptsOnlyTheKthOutputPacket) {
  const auto blocks = RunCommand(Start({.faults = {{"corrupt-cli-crc", "2"}}}), "cat /var/log/messages");
  ASSERT_GE(blocks.size(), 4u);
  for (size_t i = 0; i < blocks.size(); ++i) EXPECT_EQ(CrcMatches(blocks[i]), i != 1) << i;
}

TEST_F(CliFaults, NoEndTextLeavesTheOutputOpen) {
  DeviceHarness& device = Start({.faults = {{"cli-no-end", ""}}});
  const auto blocks = RunCommand(device, "echo hi", 1000ms);
  EXPECT_EQ(OutputOf(blocks), "hi\n");
  for (const Block& block : blocks) EXPECT_NE(PayloadText(block), "ending testdata");
  EXPECT_FALSE(device.Dev().Busy());
}

// Given a root, CLI mode follows On and Off and survives a new device on it.
TEST(CliMode, OffRefusesCommandsWithoutRunningThem) {
  DeviceHarness harness;
  const auto blocks = RunCommand(harness, "touch ran");
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(OutputOf(blocks), kModeOff);
  EXPECT_EQ(PayloadText(blocks.back()), "ending testdata");
  EXPECT_FALSE(fs::exists(harness.Dev().Root() / "ran"));
}

TEST(CliMode, PersistsAcrossDevicesOnTheSameRoot) {
  TempDir root;
  { DeviceHarness({}, root.Path()).Text(kTypeCli, "CLI On"); }
  {
    DeviceHarness second({}, root.Path());
    EXPECT_EQ(OutputOf(RunCommand(second, "echo on")), "on\n");
    second.Text(kTypeCli, "CLI Off");
    EXPECT_NE(second.Events().find("cli mode off"), std::string::npos);
  }
  DeviceHarness third({}, root.Path());
  EXPECT_EQ(OutputOf(RunCommand(third, "echo on")), kModeOff);
}

}  // namespace
}  // namespace ferrolt::devsim::test
