// Devices that lie, refuse or go away: every run ends within its bound, and a
// saved file that disagrees with what the device announced says so on
// standard error and is marked incomplete beside it.
#include <gtest/gtest.h>

#include <cstring>

#include "link/Limits.h"
#include "tests/support/ClockSlack.h"
#include "tests/support/DeviceAdminFixture.h"

namespace ferrolt::test {
namespace {

constexpr uint8_t kDownloadType = static_cast<uint8_t>(PacketType::Download);
constexpr uint8_t kCliType = static_cast<uint8_t>(PacketType::Cli);
constexpr uint8_t kUploadType = static_cast<uint8_t>(PacketType::Upload);
// Byte 6 of a type-4 reply that refuses the last upload packet.
constexpr uint8_t kNackMark = 1;

Block StartReply(int size, int total) {
  return MakeDevicePacket(kDownloadType, 57, "starting download " + std::to_string(size) + " " + std::to_string(total));
}
Block EndReply() { return MakeDevicePacket(kDownloadType, 57, "ending download"); }
Block Data(uint32_t number) { return MakeDevicePacket(kDownloadType, 57, std::string(57, 'a' + number % 26), number); }

class HostileDevice : public RawDeviceFixture {
 protected:
  // Waits until the host has written count blocks, then answers with replies.
  void AnswerAfterWrites(size_t count, const std::vector<Block>& replies) {
    ASSERT_TRUE(WaitUntil([&] { return device.Written().size() >= count; }));
    for (const Block& reply : replies) device.Send(reply);
  }
  std::string Download(const std::vector<Block>& replies) {
    EXPECT_EQ(admin.DownloadFileAsync("/tmp/f", saved.string(), &progress, &log), 0);
    AnswerAfterWrites(1, replies);
    EXPECT_TRUE(OperationEnds(admin));
    return err.Text();
  }

  StderrCapture err;
  TempDir dir;
  fs::path saved = dir / "saved.bin";
  fs::path mark = dir / "saved.bin.incomplete";
};

struct DownloadCase {
  const char* name;
  std::vector<Block> replies;
  // What standard error holds ("" for nothing), and whether the file is marked.
  const char* said;
  bool marked;
};

class DownloadReplies : public HostileDevice, public testing::WithParamInterface<DownloadCase> {};

// Whatever the device sends, the file holds the data packets as they came.
TEST_P(DownloadReplies, AreSavedAsTheyCameAndAMisfitIsSaid) {
  WriteFile(mark, "left by an earlier run");
  const DownloadCase& row = GetParam();
  const std::string said = Download(row.replies);
  std::string expected;
  for (const Block& reply : row.replies) {
    const char* payload = reinterpret_cast<const char*>(&reply[kPayloadOffset]);
    if (reply != EndReply() && std::strncmp(payload, "starting", 8) != 0) expected.append(payload, 57);
  }
  EXPECT_EQ(ReadFile(saved), expected);
  if (*row.said == '\0') {
    EXPECT_EQ(said, "");
  } else {
    EXPECT_NE(said.find(row.said), std::string::npos) << said;
  }
  EXPECT_EQ(fs::exists(mark), row.marked);
  if (row.marked) {
    EXPECT_NE(ReadFile(mark).find(row.said), std::string::npos);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Misfits, DownloadReplies,
    testing::Values(DownloadCase{"Whole", {StartReply(114, 2), Data(0), Data(1), EndReply()}, "", false},
                    DownloadCase{"Repeated",
                                 {StartReply(171, 3), Data(0), Data(1), Data(1), EndReply()},
                                 "packet 1 came where 2 was due",
                                 true},
                    DownloadCase{"Skipped",
                                 {StartReply(171, 3), Data(0), Data(2), EndReply()},
                                 "packet 2 came where 1 was due",
                                 true},
                    DownloadCase{"Backwards",
                                 {StartReply(171, 3), Data(0), Data(2), Data(1), EndReply()},
                                 "packet 2 came where 1 was due",
                                 true},
                    DownloadCase{"DataBeforeTheStart",
                                 {Data(0), StartReply(57, 2), Data(1), EndReply()},
                                 "came before the start reply",
                                 true},
                    DownloadCase{"Short",
                                 {StartReply(171, 3), Data(0), Data(1), EndReply()},
                                 "announced 171 bytes in 3 packets; 114 bytes in 2 packets arrived",
                                 true}),
    [](const auto& info) { return std::string(info.param.name); });

// Given a device that sends over a mebibyte where it announced 100 bytes,
// only its end reply ends the download: every byte is written, the totals
// and progress 100 are reported, and the misfit is said and marked.
TEST_F(HostileDevice, DataPastTheAnnouncedSizeIsWrittenUntilTheEndReply) {
  constexpr uint32_t kPackets = (1 << 20) / 57 + 2;
  std::vector<Block> replies{StartReply(100, 2)};
  for (uint32_t number = 0; number < kPackets; ++number) replies.push_back(Data(number));
  replies.push_back(EndReply());
  const std::string said = Download(replies);
  EXPECT_EQ(fs::file_size(saved), uint64_t{kPackets} * 57);
  EXPECT_TRUE(log.Has("Total file size = 100 , Total packets = 2\n"));
  EXPECT_EQ(progress.Reports().back(), 100);
  EXPECT_NE(said.find("announced 100 bytes in 2 packets; " + std::to_string(kPackets * 57) + " bytes"),
            std::string::npos)
      << said;
  EXPECT_TRUE(fs::exists(mark));
}

// Given a device that streams blocks the download cannot use, the silence
// bound still ends it: only usable blocks reset it.
TEST_F(HostileDevice, JunkForeverTripsTheSilenceBound) {
  const Block junk = MakeDevicePacket(kCliType, 57, "junk");
  device.OnReadWhenEmpty([&] { device.Send(junk); });
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(admin.DownloadFileAsync("/tmp/f", saved.string(), &progress, &log), 0);
  EXPECT_TRUE(OperationEnds(admin, limits::kDeviceSilenceLimit * 3));
  EXPECT_GE(std::chrono::steady_clock::now() - start, AtLeast(limits::kDeviceSilenceLimit));
  EXPECT_EQ(log.CountStartingWith("Error: The device sent nothing usable for "), 1u);
  EXPECT_TRUE(fs::exists(mark));
}

// Given a device that refuses a packet every time, the upload gives up on it
// after the bound, without the end command.
TEST_F(HostileDevice, AnUploadRefusedForeverGivesUp) {
  device.OnWrite([&](const DeviceBlock& block) {
    if (block[0] == kUploadType) device.Send(MakeDevicePacket(kCliType, 57, std::string(1, kNackMark)));
    return true;
  });
  WriteFile(dir / "up.bin", "payload");
  ASSERT_EQ(admin.UploadFileAsync((dir / "up.bin").string(), &progress, &log), 0);
  EXPECT_TRUE(OperationEnds(admin, kTransferBound));
  EXPECT_TRUE(log.Has("Error: The device refused packet 0 " + std::to_string(limits::kMaxUploadRefusals) +
                      " times; upload stopped."));
  EXPECT_EQ(log.CountStartingWith("A NACK has occurred!"), static_cast<size_t>(limits::kMaxUploadRefusals));
  for (const Block& block : device.Written())
    EXPECT_NE(std::string(reinterpret_cast<const char*>(block.data())), "Ending upload");
}

// How a device answers an upload's data packets: at once, never, or at once
// but for packet 3.
enum class Answer3 { AtOnce, NoPacketEver, InTheNextWait, Twice, AfterAFailedWrite };

struct DoubtCase {
  const char* name;
  Answer3 answer;
  const char* said;  // the reason on standard error; "" for none
};

class UploadDoubts : public HostileDevice, public testing::WithParamInterface<DoubtCase> {};

// Whenever a reply may belong to another packet, the upload ends with one
// line that the copy may be damaged, and an incomplete outcome; a device that
// answers in time, or never, gets no word.
TEST_P(UploadDoubts, AreSaidOnceAtTheEnd) {
  const Answer3 answer = GetParam().answer;
  bool failedOnce = false;
  device.OnWrite([&](const DeviceBlock& block) {
    if (block[0] != kUploadType || answer == Answer3::NoPacketEver) return true;
    const bool third = block[kNumberOffset] == 3;
    if (third && answer == Answer3::AfterAFailedWrite && !failedOnce) return !(failedOnce = true);
    // The answer to packet 3 comes with packet 4's.
    if (block[kNumberOffset] == 4 && answer == Answer3::InTheNextWait)
      device.Send(MakeDevicePacket(kCliType, 57, "ok", 3));
    if (!third || answer != Answer3::InTheNextWait) device.Send(MakeDevicePacket(kCliType, 57, "ok"));
    if (third && answer == Answer3::Twice) device.Send(MakeDevicePacket(kCliType, 57, "ok"));
    return true;
  });
  WriteFile(dir / "up.bin", RandomBytes(10 * 57, 4));
  ASSERT_EQ(admin.UploadFileAsync((dir / "up.bin").string(), &progress, &log), 0);
  EXPECT_TRUE(OperationEnds(admin, kTransferBound));
  const std::string said = GetParam().said;
  if (said.empty()) {
    EXPECT_EQ(err.Text(), "");
    EXPECT_EQ(admin.LastOutcome(), Outcome::Done);
  } else {
    EXPECT_EQ(err.Text().rfind("ferrolt: the copy of ", 0), 0u) << err.Text();
    EXPECT_NE(err.Text().find(said), std::string::npos) << err.Text();
    EXPECT_EQ(admin.LastOutcome(), Outcome::Incomplete);
  }
  EXPECT_TRUE(log.Has("Succeeded in writing 'Ending upload' to device."));
}

INSTANTIATE_TEST_SUITE_P(
    Answers, UploadDoubts,
    testing::Values(DoubtCase{"InTime", Answer3::AtOnce, ""}, DoubtCase{"NeverAnswered", Answer3::NoPacketEver, ""},
                    DoubtCase{"Late", Answer3::InTheNextWait, "the device answered after the 5 ms wait"},
                    DoubtCase{"WaitingBeforeItsPacket", Answer3::Twice, "the device answered after the 5 ms wait"},
                    DoubtCase{"ResentAfterAReopen", Answer3::AfterAFailedWrite,
                              "a packet went out again after the link was reopened"}),
    [](const auto& info) { return std::string(info.param.name); });

// Given the read-back asked for and a device whose copy differs from what
// was sent, the note names the first byte that differs.
TEST_F(HostileDevice, AReadBackNamesWhereTheCopyDiffers) {
  admin.ReadBackUploads(true);
  device.OnWrite([&](const DeviceBlock& block) {
    if (std::string(reinterpret_cast<const char*>(block.data())) == "Ending upload") return true;
    if (block[0] == kDownloadType)
      for (const Block& reply : {StartReply(114, 2), Data(0), Data(1), EndReply()}) device.Send(reply);
    return true;
  });
  // Packet 1 comes back as 57 bytes of 'b'.
  const std::string sent(114, 'a');
  // The device names the file by what follows the backslash.
  WriteFile(dir / "C:\\up.bin", sent);
  ASSERT_EQ(admin.UploadFileAsync((dir / "C:\\up.bin").string(), &progress, &log), 0);
  EXPECT_TRUE(OperationEnds(admin, kTransferBound));
  EXPECT_NE(err.Text().find(
                "/tmp/up.bin on the device differs from the file sent from byte 57 on (114 bytes read back, 114 sent)"),
            std::string::npos)
      << err.Text();
  EXPECT_EQ(admin.LastOutcome(), Outcome::Incomplete);
}

// Given a command whose device goes away, the output wait ends with a line
// once reads have failed for the bound; a quiet device would keep it open.
TEST_F(HostileDevice, ACommandWhoseDeviceIsGoneEnds) {
  ASSERT_EQ(admin.SendCliCommandAsync("sleep 600", &progress, &log), 0);
  // The device holds the command before its write has completed: unplugged
  // in between, the write fails instead. The blank line the worker prints
  // once the write has completed says it waits for the output.
  ASSERT_TRUE(WaitUntil([&] {
    const std::string text = out.Text();
    return !device.Written().empty() && text.size() >= 2 && text.compare(text.size() - 2, 2, "\n\n") == 0;
  }));
  device.Unplug();
  EXPECT_TRUE(OperationEnds(admin, limits::kLinkLostLimit * 4));
  EXPECT_EQ(log.CountStartingWith("Error: Reading from the device has failed for "), 1u);
}

// Given a folder where a file to send belongs, it is a file that cannot be
// opened: the same log line, a note on standard error, nothing sent.
TEST_F(HostileDevice, AFolderIsNoFileToSend) {
  const std::string folder = dir.Path().string();
  ASSERT_EQ(admin.UploadFileAsync(folder, &progress, &log), 0);
  EXPECT_TRUE(OperationEnds(admin));
  ASSERT_EQ(admin.UpgradeBundleAsync(folder, &progress, &log, false), 0);
  EXPECT_TRUE(OperationEnds(admin));
  EXPECT_EQ(log.CountStartingWith("Error: Can not find specified file - " + folder), 2u);
  const std::string note = "ferrolt: " + folder + " is a folder; give the path of a file.\n";
  EXPECT_EQ(err.Text(), note + note);
  EXPECT_TRUE(device.Written().empty());
}

}  // namespace
}  // namespace ferrolt::test
