#include "link/ResponseReader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "link/DevicePacket.h"
#include "link/Reporting.h"
#include "tests/link/LinkFixture.h"

namespace ferrolt::test {
namespace {

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;
using std::chrono::milliseconds;

constexpr milliseconds kReaderTimeout{5000};
constexpr milliseconds kStillRunningCheck{60};

DeviceBlock StatusText(const std::string& text) { return BuildTextPacket(PacketType::Upgrade, text); }

DeviceBlock Nack(uint32_t number, uint8_t sequenceFlag) {
  DeviceBlock block{};
  block[0] = 10;
  for (int i = 0; i < 4; ++i) block[1 + i] = static_cast<uint8_t>(number >> (8 * i));
  block[6] = sequenceFlag;
  block[63] = 0x55;  // not a valid CRC: a NACK's is never checked
  return block;
}

std::string NackLine(const DeviceBlock& block, const char* reason) {
  std::string line = "NACKED PACKET      = ";
  for (uint8_t byte : block) {
    char text[4];
    std::snprintf(text, sizeof(text), "%02x ", byte);
    line += text;
  }
  return line + "\n" + reason;
}

// Given the device's answers queued on the IN pipe, the reader stores NACKs,
// logs sound status texts and stops at the end report.
class ResponseReading : public LinkFixture {
 protected:
  void SetUp() override { OpenLink(); }

  // Runs the reader on its own thread; a reader still running after the
  // time-out is stopped and the test fails.
  std::future<void> Start(ILogMessageCallBack* reporter) {
    return std::async(std::launch::async, [this, reporter] { ReadResponses(link, state, stop, LogOrSilent(reporter)); });
  }
  void Finish(std::future<void>& reader) {
    if (reader.wait_for(kReaderTimeout) != std::future_status::ready) {
      stop = true;
      ADD_FAILURE() << "the reader did not stop";
    }
    reader.get();
  }
  // Stops the reader once every queued block has been read.
  void StopWhenDrained() {
    backend.OnReadWhenEmpty([this] { stop = true; });
  }
  std::string RunToEnd(ILogMessageCallBack* reporter) {
    CaptureStdout();
    auto reader = Start(reporter);
    Finish(reader);
    return GetCapturedStdout();
  }

  ReaderState state;
  std::atomic<bool> stop{false};
};

// Given NACKs followed by packets of every other type but the status text's,
// the reader stores the last NACK's number, prints each NACK, and ignores the rest.
TEST_F(ResponseReading, NacksAreStoredAndPrintedOtherTypesIgnored) {
  const DeviceBlock sequence = Nack(7, 1);
  const DeviceBlock crc = Nack(0x0102, 0);
  backend.Send(sequence);
  backend.Send(crc);
  for (uint8_t type = 2; type <= 9; ++type)
    backend.Send(BuildTextPacket(static_cast<PacketType>(type), "Upgrade ending"));
  StopWhenDrained();
  const std::string printed = RunToEnd(&log);
  EXPECT_EQ(printed, NackLine(sequence, "Sequence error\n") + NackLine(crc, "CRC error\n"));
  EXPECT_EQ(state.NackedPacketNumber.load(), 0x0102u);
  EXPECT_FALSE(state.ReaderDone.load());
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(ResponseReading, StatusTextsAreLoggedUntilTheEndReport) {
  backend.Send(StatusText("Verifying bundle 50%"));
  backend.Send(StatusText("Upgrade ending"));
  backend.Send(StatusText("never read"));
  EXPECT_EQ(RunToEnd(&log), "");
  EXPECT_TRUE(state.ReaderDone.load());
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"Verifying bundle 50%", "Upgrade ending"}));
}

TEST_F(ResponseReading, FailedOrEndingInsideAWordStopsIt) {
  backend.Send(StatusText("Sending reboot"));
  RunToEnd(&log);
  EXPECT_TRUE(state.ReaderDone.load());

  state.ReaderDone = false;
  backend.Send(StatusText("Install Failed: no space"));
  RunToEnd(nullptr);
  EXPECT_TRUE(state.ReaderDone.load());
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Sending reboot"});
}

TEST_F(ResponseReading, CorruptTextIsPrintedNotLoggedAndDoesNotStop) {
  DeviceBlock corrupt = StatusText("Upgrade ending");
  const uint8_t good = corrupt[63];
  corrupt[63] ^= 0xFF;
  backend.Send(corrupt);
  backend.Send(StatusText("Upgrade Failed"));
  char expected[96];
  std::snprintf(expected, sizeof(expected), "CRC failed.\nCRC you gave me - %x\nCRC I calculated - %x\n",
                corrupt[63], good);
  EXPECT_EQ(RunToEnd(&log), expected);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Upgrade Failed"});
}

TEST_F(ResponseReading, DoneFromAnEarlierRunStopsBeforeReading) {
  state.ReaderDone = true;
  backend.Send(StatusText("Upgrade ending"));
  const int readsAtOpen = backend.ReadsStarted();
  RunToEnd(&log);
  EXPECT_EQ(backend.ReadsStarted(), readsAtOpen);
  EXPECT_TRUE(log.Lines().empty());
}

// Given a silent device, and then a link closed under it, the reader keeps
// polling until told to stop.
TEST_F(ResponseReading, SilenceOrAClosedLinkKeepsItPollingUntilStopped) {
  auto reader = Start(&log);
  std::this_thread::sleep_for(kStillRunningCheck);
  EXPECT_EQ(reader.wait_for(milliseconds(0)), std::future_status::timeout);
  link.CloseDevice();
  std::this_thread::sleep_for(kStillRunningCheck);
  EXPECT_EQ(reader.wait_for(milliseconds(0)), std::future_status::timeout);
  stop = true;
  Finish(reader);
  EXPECT_FALSE(state.ReaderDone.load());
}

// Given a signalled cancel, the reader takes nothing but keeps running; the
// block waits for it.
TEST_F(ResponseReading, CancelPausesButDoesNotStopTheReader) {
  cancel.Set();
  backend.Send(StatusText("Upgrade ending"));
  auto reader = Start(&log);
  std::this_thread::sleep_for(kStillRunningCheck);
  EXPECT_EQ(reader.wait_for(milliseconds(0)), std::future_status::timeout);
  EXPECT_TRUE(log.Lines().empty());
  cancel.Reset();
  Finish(reader);
  EXPECT_TRUE(state.ReaderDone.load());
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Upgrade ending"});
}

}  // namespace
}  // namespace ferrolt::test
