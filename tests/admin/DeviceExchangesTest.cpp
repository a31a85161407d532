// The short operations against the in-process fake device: the cases whose
// timing or device answers the emulator cannot script.
#include <string>

#include "link/DevicePacket.h"
#include "tests/admin/FakeDeviceFixture.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

constexpr uint8_t kCli = 4;
constexpr uint8_t kVersion = 2;

std::string OutputAfterCommand(const std::string& out) {
  const std::string opened = "Device speed: 3 (High speed).\n\n";
  const size_t at = out.find(opened);
  return at == std::string::npos ? "<no output start>" : out.substr(at + opened.size());
}

// Given a CLI command, its output is printed as the device streams it, up to
// the end text.
class CliOutputTest : public FakeDeviceFixture {};

TEST_F(CliOutputTest, PrintsEachPacketsBytesUntilTheEndTextInAnyCase) {
  ASSERT_EQ(admin.SendCliCommandAsync("ls", &progress, &log), 0);
  device.Send(MakeDevicePacket(kCli, 4, "abc\nIGNORED"));       // only length bytes count
  device.Send(MakeDevicePacket(kVersion, 57, "not output\n"));  // another type: ignored
  device.Send(MakeDevicePacket(kCli, 0, "nothing"));            // length 0 prints nothing
  device.Send(MakeDevicePacket(kCli, 6, "100%n\n"));            // device text, not a format
  DeviceBlock corrupt = MakeDevicePacket(kCli, 5, "lost\n");
  corrupt[63] ^= 0x5A;
  device.Send(corrupt);
  device.Send(MakeDevicePacket(kCli, 200, std::string(57, 'x')));  // length clamped to the payload
  device.Send(MakeDevicePacket(kCli, 57, "ENDING TESTDATA"));
  device.Send(MakeDevicePacket(kCli, 5, "late\n"));
  ASSERT_TRUE(OperationEnds(admin));

  char crcLines[128];
  std::snprintf(crcLines, sizeof crcLines, "CRC failed.\nCRC you gave me - %x\nCRC I calculated - %x\n", corrupt[63],
                corrupt[63] ^ 0x5A);
  EXPECT_EQ(OutputAfterCommand(out.Text()), "abc\n100%n\n" + std::string(crcLines) + std::string(57, 'x'));
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_TRUE(progress.Reports().empty());
}

TEST_F(CliOutputTest, CommandOfSixtyCharactersSendsItsFirstFiftySevenWithoutTerminator) {
  const std::string command = "echo 0123456789012345678901234567890123456789012345678901234";
  ASSERT_EQ(command.size(), 60u);
  ASSERT_EQ(admin.SendCliCommandAsync(command, &progress, &log), 0);
  device.Send(MakeDevicePacket(kCli, 57, "ending testdata"));
  ASSERT_TRUE(OperationEnds(admin));
  const auto written = device.Written();
  ASSERT_EQ(written.size(), 1u);
  EXPECT_EQ(written[0][0], kCli);
  EXPECT_EQ(written[0][5], 57);
  EXPECT_EQ(std::string(written[0].begin() + 6, written[0].begin() + 63), command.substr(0, 57));
  EXPECT_TRUE(PacketCrcMatches(written[0].data()));
}

TEST_F(CliOutputTest, StalledCommandWriteIsLoggedAndTheOutputStillRead) {
  device.SetStallWrites(true);
  ASSERT_EQ(admin.SendCliCommandAsync("uptime", &progress, &log), 0);
  device.Send(MakeDevicePacket(kCli, 3, "up\n"));
  device.Send(MakeDevicePacket(kCli, 57, "ending testdata"));
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(log.Lines(), Lines{"Failed in writing CLI command to device."});
  EXPECT_EQ(device.Written().size(), 1u);  // not resent
  EXPECT_EQ(device.Opens(), 2);            // reopened once
  EXPECT_EQ(OutputAfterCommand(out.Text()), "up\n");
}

// Given a version request, the reply goes to the version callback.
class VersionExchangeTest : public FakeDeviceFixture {};

TEST_F(VersionExchangeTest, ReadThatGetsNothingSendsTheRequestAgain) {
  int requests = 0;
  device.OnWrite([&](const DeviceBlock&) {
    if (++requests == 2) device.Send(MakeDevicePacket(kVersion, 57, "4.5.6"));
  });
  ASSERT_EQ(admin.RetrieveVersionAsync(&version, &progress, &log, false), 0);
  ASSERT_TRUE(OperationEnds(admin));
  EXPECT_EQ(device.Written().size(), 2u);
  ASSERT_EQ(version.Texts().size(), 2u);
  EXPECT_EQ(version.Texts()[1], "Version - 4.5.6");
  EXPECT_EQ(progress.Reports(), std::vector<int>{100});
}

TEST_F(VersionExchangeTest, ReplyOfAnotherTypeGivesOnlyTheHexLine) {
  device.OnWrite([&](const DeviceBlock&) { device.Send(MakeDevicePacket(kCli, 57, "hello")); });
  ASSERT_EQ(admin.RetrieveVersionAsync(&version, &progress, &log, true), 0);
  ASSERT_TRUE(OperationEnds(admin));
  ASSERT_EQ(version.Texts().size(), 1u);
  EXPECT_EQ(version.Texts()[0].substr(0, 13), "Read data :04");
  EXPECT_EQ(version.Texts()[0].size(), 11u + 128u);
  EXPECT_EQ(progress.Reports(), std::vector<int>{100});
  EXPECT_EQ(out.Text(), "Device speed: 3 (High speed).\nVERBOSE MODE DETECTED!\nSPI SUPPORT IS TURNED ON!\n");
}

// Given a device that never completes a write, the resend rounds stop.
class StalledResendTest : public FakeDeviceFixture {};

TEST_F(StalledResendTest, CaptouchGivesUpAfterItsBoundWithOneLine) {
  device.SetStallWrites(true);
  ASSERT_EQ(admin.ProgramCaptouchAsync(&progress, &log), 0);
  ASSERT_TRUE(OperationEnds(admin, milliseconds(20000)));
  Lines expected(5, "Failed to send reboot message to device.");
  expected.push_back("Error: Giving up after 5 failed attempts to send the reboot message.");
  EXPECT_EQ(log.Lines(), expected);
  EXPECT_EQ(device.Written().size(), 5u);
  EXPECT_EQ(progress.Reports(), std::vector<int>{5});
  EXPECT_EQ(device.Opens(), device.Closes());
}

TEST_F(StalledResendTest, OrtStopsWhenTheLinkCannotBeReopened) {
  device.SetStallWrites(true);
  device.OnWrite([&](const DeviceBlock&) { device.SetPresent(false); });
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
