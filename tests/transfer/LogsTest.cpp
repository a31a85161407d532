#include <gtest/gtest.h>

#include "tests/support/DeviceAdminFixture.h"

namespace ferrolt::test {
namespace {

ProcessResult Unzip(const std::vector<std::string>& args) {
  ProcessOptions options;
  options.args = args;
  options.timeout = std::chrono::milliseconds(10000);
  return RunProcess("/usr/bin/unzip", options);
}

// Given log files on the device, the log download saves a zip archive of
// them that unzip accepts.
class LogsTest : public DevsimFixture {
 protected:
  void SetUp() override {
    WriteFile(root / "var" / "log" / "messages", RandomBytes(3000, 1));
    fs::create_directories(root / "var" / "log" / "app");
    WriteFile(root / "var" / "log" / "app" / "app.log", "started\nstopped\n");
  }
  std::string Logs() {
    return Run([&](DeviceAdmin& a) {
      return a.DownloadLogsAsync(zip.string(), &progress, &log, false);
    });
  }
  void ExpectArchiveOfTheDeviceLogs() {
    EXPECT_EQ(Unzip({"-t", zip.string()}).exitStatus, 0);
    EXPECT_EQ(Unzip({"-p", zip.string(), "app/app.log"}).out, "started\nstopped\n");
    EXPECT_EQ(Unzip({"-p", zip.string(), "messages"}).out, RandomBytes(3000, 1));
  }

  fs::path zip = dir / "logs.zip";
};

TEST_F(LogsTest, ArchiveHoldsTheDeviceLogsAndProgressRisesFromZero) {
  Start();
  const std::string out = Logs();
  ExpectArchiveOfTheDeviceLogs();
  EXPECT_EQ(out, std::string(lines::kOpened) + lines::kSpi + zip.string() + "\n\n");
  EXPECT_EQ(progress.Reports(), (std::vector<int>{5, 100}));
  EXPECT_TRUE(log.Has("Starting download logs now."));
  EXPECT_EQ(log.Lines()[1], "Download Log Progress: 0%%");
  const std::string totals = log.Lines().back();
  EXPECT_EQ(totals.rfind("Total file size = " + std::to_string(fs::file_size(zip)) + " , Total packets = ", 0), 0u)
      << totals;
  EXPECT_EQ(log.CountStartingWith("Download Log Progress: 100"), 0u);
}

TEST_F(LogsTest, SequenceErrorRestartsAndTheArchiveHoldsOnlyTheLastAttempt) {
  Start({"bad-sequence=2", "interleave"});
  const std::string out = Logs();
  ExpectArchiveOfTheDeviceLogs();
  EXPECT_EQ(log.CountStartingWith("Starting download logs now."), 2u);
  EXPECT_EQ(log.CountStartingWith("Incorrect sequence # detected! - 03"), 1u);
  EXPECT_EQ(log.CountStartingWith("Expected sequence 2, but got "), 1u);
  EXPECT_EQ(log.CountStartingWith("Download Log Progress: 0%%"), 2u) << "each attempt starts from 0";
  EXPECT_EQ(log.CountStartingWith("Total file size = "), 2u);
  EXPECT_EQ(out, std::string(lines::kOpened) + lines::kSpi + zip.string() + "\n\n" + zip.string() + "\n\n");
}

TEST_F(LogsTest, LongLengthAndUnreadableStartNumbersStillGiveAGoodArchive) {
  Start({"long-length=1", "bad-start-numbers"});
  Logs();
  ExpectArchiveOfTheDeviceLogs();
  EXPECT_EQ(log.CountStartingWith("Download Log Progress"), 0u) << "no total to divide by";
  EXPECT_EQ(log.Lines().back(), "Total file size = 0 , Total packets = 0\n");
}

TEST_F(LogsTest, CorruptedPacketIsReportedAndDropped) {
  Start({"corrupt-reply-crc=1"});
  Logs();
  EXPECT_EQ(log.CountStartingWith("ERROR: CRC FAILED - 0301000000"), 1u);
  EXPECT_NE(Unzip({"-t", zip.string()}).exitStatus, 0) << "the archive lacks a packet";
}

}  // namespace
}  // namespace ferrolt::test
