// The short operations against the in-process device, where its timing or
// answers are more than ferrolt-devsim can be made to give.
#include <functional>
#include <string>

#include "tests/support/DeviceAdminFixture.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

constexpr uint8_t kCli = 4;
constexpr uint8_t kVersion = 2;

const Block kEndOfOutput = MakeDevicePacket(kCli, 57, "ending testdata");

// The device answers the next block written with these; a device never
// answers before it is asked (blocks queued before the link opens are stale).
void AnswerNextWrite(InProcessDevice& device, std::vector<Block> blocks) {
  device.OnWrite([&device, blocks, answered = false](const Block&) mutable {
    if (!answered)
      for (const Block& block : blocks) device.Send(block);
    answered = true;
    return true;
  });
}

std::string OutputAfterCommand(const std::string& out) {
  const std::string opened = std::string(lines::kOpened) + "\n";
  const size_t at = out.find(opened);
  return at == std::string::npos ? "<no output start>" : out.substr(at + opened.size());
}

// Given a CLI command, its output is printed as the device streams it, up to
// the end text.
class CliOutputTest : public RawDeviceFixture {};

TEST_F(CliOutputTest, PrintsEachPacketsBytesUntilTheEndTextInAnyCase) {
  Block corrupt = MakeDevicePacket(kCli, 5, "lost\n");
  corrupt[63] ^= 0x5A;
  AnswerNextWrite(device, {
      MakeDevicePacket(kCli, 4, "abc\nIGNORED"),                // only length bytes count
      MakeDevicePacket(kVersion, 57, "not output\n"),           // another type: ignored
      MakeDevicePacket(kCli, 0, "nothing"),                     // length 0 prints nothing
      MakeDevicePacket(kCli, 6, "100%n\n"),                     // device text, not a format
      corrupt,                                                  //
      MakeDevicePacket(kCli, 200, std::string(57, 'x')),        // length clamped to the payload
      MakeDevicePacket(kCli, 57, "ENDING TESTDATA"),            //
      MakeDevicePacket(kCli, 5, "late\n"),                      //
  });
  ASSERT_EQ(admin.SendCliCommandAsync("ls", &progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));

  char crcLines[128];
  std::snprintf(crcLines, sizeof crcLines, "CRC failed.\nCRC you gave me - %x\nCRC I calculated - %x\n", corrupt[63],
                corrupt[63] ^ 0x5A);
  EXPECT_EQ(OutputAfterCommand(out.Text()), "abc\n100%n\n" + std::string(crcLines) + std::string(57, 'x'));
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_TRUE(progress.Reports().empty());
}

TEST_F(CliOutputTest, StalledCommandWriteIsLoggedAndTheOutputStillRead) {
  device.Stall(true);
  AnswerNextWrite(device, {MakeDevicePacket(kCli, 3, "up\n"), kEndOfOutput});
  ASSERT_EQ(admin.SendCliCommandAsync("uptime", &progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(log.Lines(), Lines{"Failed in writing CLI command to device."});
  EXPECT_EQ(device.Written().size(), 1u);      // not resent
  EXPECT_EQ(device.OpenedPaths().size(), 2u);  // reopened once
  EXPECT_EQ(OutputAfterCommand(out.Text()), "up\n");
}

// Given a version request, the reply goes to the version callback.
class VersionExchangeTest : public RawDeviceFixture {};

TEST_F(VersionExchangeTest, ReadThatGetsNothingSendsTheRequestAgain) {
  int requests = 0;
  device.OnWrite([&](const Block&) {
    if (++requests == 2) device.Send(MakeDevicePacket(kVersion, 57, "4.5.6"));
    return true;
  });
  ASSERT_EQ(admin.RetrieveVersionAsync(&version, &progress, &log, false), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(device.Written().size(), 2u);
  ASSERT_EQ(version.Texts().size(), 2u);
  EXPECT_EQ(version.Texts()[1], "Version - 4.5.6");
  EXPECT_EQ(progress.Reports(), std::vector<int>{100});
}

// Given a device that never completes a write, the resend rounds stop.
class StalledResendTest : public RawDeviceFixture {};

TEST_F(StalledResendTest, OrtStartGivesUpAfterItsBoundAndClosesEveryLink) {
  device.Stall(true);
  char ortString[] = "ort start";
  ASSERT_EQ(admin.StartOrtAsync(&progress, &log, ortString), 0);
  ASSERT_TRUE(OperationEnds(admin, milliseconds(20000)));
  Lines expected(5, "Failed to send ORT message to device.");
  expected.push_back("Error: Giving up after 5 failed attempts to send the ORT message.");
  EXPECT_EQ(log.Lines(), expected);
  EXPECT_EQ(device.Written().size(), 5u);
  EXPECT_EQ(progress.Reports(), std::vector<int>{5});
  EXPECT_EQ(device.LiveConnections(), 0);
}

TEST_F(StalledResendTest, OrtEndStopsWhenTheLinkCannotBeReopened) {
  device.Stall(true);
  device.OnWrite([&](const Block&) {
    device.SetPaths({});
    return true;
  });
  ASSERT_EQ(admin.EndOrtAsync(&progress, &log, false), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(log.Lines(), (Lines{"Failed in writing 'ort end' to device.",
                                "Error:Failed to connect to the bulk interface, device might be disconnected"}));
  const std::string text = out.Text();
  EXPECT_EQ(text.substr(text.size() - 22), "Failed to open device\n");
  EXPECT_EQ(progress.Reports(), std::vector<int>{5});
}

}  // namespace
}  // namespace ferrolt::test
