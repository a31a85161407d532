#include <gtest/gtest.h>

#include <memory>

#include "tests/transfer/TransferHarness.h"

namespace ferrolt::test {
namespace {

// Given files in the device's /tmp/, the download saves them byte for byte.
class DownloadTest : public testing::Test {
 protected:
  void Start(const std::vector<std::string>& faults = {}) {
    harness = std::make_unique<TransferHarness>(root, faults);
    ASSERT_TRUE(harness->server.Running());
  }
  std::string OnDevice(const std::string& name, const std::string& bytes) {
    WriteFile(root / "tmp" / name, bytes);
    return "/tmp/" + name;
  }
  std::string Download(const std::string& devicePath, const fs::path& savePath) {
    return harness->Run([&](DeviceAdmin& admin) {
      return admin.DownloadFileAsync(devicePath, savePath.string(), &harness->progress, &harness->log);
    });
  }

  TempDir dir;
  fs::path root = MakeRoot(dir);
  std::unique_ptr<TransferHarness> harness;
};

TEST_F(DownloadTest, FilesOfEverySizeArriveByteForByte) {
  Start();
  for (size_t size : {size_t{0}, size_t{56}, size_t{57}, size_t{58}, size_t{1} << 20}) {
    const std::string name = "d" + std::to_string(size);
    const std::string bytes = RandomBytes(size, static_cast<unsigned>(size) + 1);
    Download(OnDevice(name, bytes), dir / name);
    EXPECT_EQ(ReadFile(dir / name), bytes) << name;
    const int32_t packets = static_cast<int32_t>((size + 56) / 57);
    char totals[80];
    std::snprintf(totals, sizeof totals, "Total file size = %d , Total packets = %d\n", static_cast<int>(size),
                  static_cast<int>(packets));
    EXPECT_EQ(harness->log.Lines().back(), totals);
  }
  EXPECT_EQ(harness->progress.Reports(), (std::vector<int>{5, 100, 5, 100, 5, 100, 5, 100, 5, 100}));
}

TEST_F(DownloadTest, ConsoleMarksTheFirstDataPacketAndEveryPacketIsLogged) {
  Start();
  const std::string out = Download(OnDevice("two", RandomBytes(58, 9)), dir / "two");
  EXPECT_EQ(out, kSpeedLine + "SPI SUPPORT IS TURNED ON!\n\nThis is the actual first packet!\nSequence = 0 , Total Packets = 2\n");
  EXPECT_TRUE(harness->log.Has("Starting file download now."));
  EXPECT_EQ(harness->log.CountStartingWith("Read data :06"), 4u) << "start, two data packets, end";
}

TEST_F(DownloadTest, SinglePacketFileEndsWithoutWaitingForTheEndReply) {
  Start();
  Download(OnDevice("one", "just one packet"), dir / "one");
  EXPECT_EQ(ReadFile(dir / "one"), "just one packet");
  EXPECT_EQ(harness->log.CountStartingWith("Read data :"), 2u);
}

TEST_F(DownloadTest, MissingDeviceFileEmptiesAnExistingSaveFile) {
  Start();
  WriteFile(dir / "old", "old content");
  Download("/tmp/absent", dir / "old");
  EXPECT_TRUE(fs::exists(dir / "old"));
  EXPECT_EQ(ReadFile(dir / "old"), "");
  EXPECT_EQ(harness->log.Lines().back(), "Total file size = 0 , Total packets = 0\n");
}

// Given a request that cannot be made, nothing goes to the device and no
// local file is touched.
TEST_F(DownloadTest, UnusableSavePathOrDevicePathSendsNothing) {
  Start();
  const fs::path nowhere = dir / "missing-folder" / "file";
  Download(OnDevice("x", "x"), nowhere);
  EXPECT_TRUE(harness->log.Has("Error: Can not find specified file destination path - " + nowhere.string()));

  const std::string longPath = "/tmp/" + std::string(34, 'p');  // 39 characters
  WriteFile(dir / "keep", "kept");
  Download(longPath, dir / "keep");
  EXPECT_TRUE(harness->log.Has("Error: The device path is longer than 38 characters - " + longPath));
  EXPECT_EQ(ReadFile(dir / "keep"), "kept");

  EXPECT_TRUE(harness->server.Received().empty());
  EXPECT_FALSE(harness->admin.IsOperationRunning());
}

TEST_F(DownloadTest, DevicePathOfThirtyEightCharactersIsServed) {
  Start();
  const std::string name(33, 'q');  // "/tmp/" + 33 = 38
  Download(OnDevice(name, "edge"), dir / "edge");
  EXPECT_EQ(ReadFile(dir / "edge"), "edge");
}

// Given a device that misbehaves in its replies, the file is whole or the
// tool says which packet it lost.
TEST_F(DownloadTest, ReplyFaultsLeaveTheFileWholeOrReportTheLoss) {
  const std::string bytes = RandomBytes(20 * 57, 21);
  OnDevice("f", bytes);
  Start({"long-length=1", "interleave", "corrupt-reply-crc=3"});
  Download("/tmp/f", dir / "first");
  const std::string first = ReadFile(dir / "first");
  EXPECT_EQ(harness->log.CountStartingWith("ERROR: CRC FAILED - 0603000000"), 1u);
  EXPECT_EQ(first, bytes.substr(0, 3 * 57) + bytes.substr(4 * 57)) << "only packet 3 is missing";

  // The CRC fault fires once: a second download is whole.
  Download("/tmp/f", dir / "second");
  EXPECT_EQ(ReadFile(dir / "second"), bytes);
}

TEST_F(DownloadTest, UnreadableStartNumbersStillEndOnTheEndReply) {
  Start({"bad-start-numbers"});
  const std::string bytes = RandomBytes(200, 4);
  Download(OnDevice("n", bytes), dir / "n");
  EXPECT_EQ(ReadFile(dir / "n"), bytes);
  EXPECT_EQ(harness->log.Lines().back(), "Total file size = 0 , Total packets = 0\n");
}

}  // namespace
}  // namespace ferrolt::test
