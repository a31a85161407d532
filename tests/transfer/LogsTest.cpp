#include <gtest/gtest.h>

#include <memory>

#include "tests/transfer/TransferHarness.h"

namespace ferrolt::test {
namespace {

constexpr const char* kUnzip = "/usr/bin/unzip";

// Given log files on the device, the log download saves a zip archive of
// them that unzip accepts.
class LogsTest : public testing::Test {
 protected:
  void SetUp() override {
    WriteFile(root / "var" / "log" / "messages", RandomBytes(3000, 1));
    fs::create_directories(root / "var" / "log" / "app");
    WriteFile(root / "var" / "log" / "app" / "app.log", "started\nstopped\n");
  }
  void Start(const std::vector<std::string>& faults = {}) {
    harness = std::make_unique<TransferHarness>(root, faults);
    ASSERT_TRUE(harness->server.Running());
  }
  std::string Logs(const fs::path& zipPath) {
    return harness->Run([&](DeviceAdmin& admin) {
      return admin.DownloadLogsAsync(zipPath.string(), &harness->progress, &harness->log, false);
    });
  }
  static ProcessResult Unzip(const std::vector<std::string>& args) {
    ProcessOptions options;
    options.args = args;
    options.timeout = std::chrono::milliseconds(10000);
    return RunProcess(kUnzip, options);
  }
  void ExpectArchiveOfTheDeviceLogs(const fs::path& zip) {
    EXPECT_EQ(Unzip({"-t", zip.string()}).exitStatus, 0);
    EXPECT_EQ(Unzip({"-p", zip.string(), "app/app.log"}).out, "started\nstopped\n");
    EXPECT_EQ(Unzip({"-p", zip.string(), "messages"}).out, RandomBytes(3000, 1));
  }

  TempDir dir;
  fs::path root = MakeRoot(dir);
  std::unique_ptr<TransferHarness> harness;
};

TEST_F(LogsTest, ArchiveHoldsTheDeviceLogsAndProgressRisesFromZero) {
  Start();
  const fs::path zip = dir / "logs.zip";
  const std::string out = Logs(zip);
  ExpectArchiveOfTheDeviceLogs(zip);
  EXPECT_EQ(out, kSpeedLine + "SPI SUPPORT IS TURNED ON!\n" + zip.string() + "\n\n");
  EXPECT_EQ(harness->progress.Reports(), (std::vector<int>{5, 100}));
  EXPECT_TRUE(harness->log.Has("Starting download logs now."));
  EXPECT_EQ(harness->log.Lines()[1], "Download Log Progress: 0%%");
  const std::string totals = harness->log.Lines().back();
  EXPECT_EQ(totals.rfind("Total file size = " + std::to_string(fs::file_size(zip)) + " , Total packets = ", 0), 0u)
      << totals;
  EXPECT_EQ(harness->log.CountStartingWith("Download Log Progress: 100"), 0u);
}

TEST_F(LogsTest, SequenceErrorRestartsAndTheArchiveHoldsOnlyTheLastAttempt) {
  Start({"bad-sequence=2", "interleave"});
  const fs::path zip = dir / "restarted.zip";
  const std::string out = Logs(zip);
  ExpectArchiveOfTheDeviceLogs(zip);
  EXPECT_EQ(harness->log.CountStartingWith("Starting download logs now."), 2u);
  EXPECT_EQ(harness->log.CountStartingWith("Incorrect sequence # detected! - 03"), 1u);
  EXPECT_EQ(harness->log.CountStartingWith("Expected sequence 2, but got "), 1u);
  EXPECT_EQ(harness->log.CountStartingWith("Download Log Progress: 0%%"), 2u) << "each attempt starts from 0";
  EXPECT_EQ(harness->log.CountStartingWith("Total file size = "), 2u);
  EXPECT_EQ(out, kSpeedLine + "SPI SUPPORT IS TURNED ON!\n" + zip.string() + "\n\n" + zip.string() + "\n\n");
}

TEST_F(LogsTest, LongLengthAndUnreadableStartNumbersStillGiveAGoodArchive) {
  Start({"long-length=1", "bad-start-numbers"});
  const fs::path zip = dir / "odd.zip";
  Logs(zip);
  ExpectArchiveOfTheDeviceLogs(zip);
  EXPECT_EQ(harness->log.CountStartingWith("Download Log Progress"), 0u) << "no total to divide by";
  EXPECT_EQ(harness->log.Lines().back(), "Total file size = 0 , Total packets = 0\n");
}

TEST_F(LogsTest, CorruptedPacketIsReportedAndDropped) {
  Start({"corrupt-reply-crc=1"});
  const fs::path zip = dir / "lossy.zip";
  Logs(zip);
  EXPECT_EQ(harness->log.CountStartingWith("ERROR: CRC FAILED - 0301000000"), 1u);
  EXPECT_NE(Unzip({"-t", zip.string()}).exitStatus, 0) << "the archive lacks a packet";
}

TEST_F(LogsTest, DestinationInAMissingFolderSendsNothing) {
  Start();
  const fs::path zip = dir / "no-folder" / "logs.zip";
  Logs(zip);
  EXPECT_TRUE(harness->log.Has("Error: Can not find specified log destination path - " + zip.string()));
  EXPECT_TRUE(harness->server.Received().empty());
  EXPECT_FALSE(harness->admin.IsOperationRunning());
}

}  // namespace
}  // namespace ferrolt::test
