#include <gtest/gtest.h>

#include "tests/support/DeviceAdminFixture.h"

namespace ferrolt::test {
namespace {

// Given files in the device's /tmp/, the download saves them byte for byte.
class DownloadTest : public DevsimFixture {
 protected:
  std::string OnDevice(const std::string& name, const std::string& bytes) {
    WriteFile(root / "tmp" / name, bytes);
    return "/tmp/" + name;
  }
  std::string Download(const std::string& devicePath, const fs::path& savePath) {
    return Run([&](DeviceAdmin& a) {
      return a.DownloadFileAsync(devicePath, savePath.string(), &progress, &log);
    });
  }
};

// Every reply is logged; a one-packet file ends on its data packet without
// waiting for the end reply.
TEST_F(DownloadTest, FilesOfEverySizeArriveByteForByte) {
  Start();
  for (size_t size : {size_t{0}, size_t{56}, size_t{57}, size_t{58}, size_t{1} << 20}) {
    SCOPED_TRACE(size);
    const std::string name = "d" + std::to_string(size);
    const std::string bytes = RandomBytes(size, static_cast<unsigned>(size) + 1);
    const size_t readsBefore = log.CountStartingWith("Read data :");
    WriteFile(dir / name, "stale bytes");
    Download(OnDevice(name, bytes), dir / name);
    EXPECT_EQ(ReadFile(dir / name), bytes);
    const size_t packets = (size + 56) / 57;
    EXPECT_EQ(log.CountStartingWith("Read data :") - readsBefore, packets + (packets == 1 ? 1 : 2));
    EXPECT_EQ(log.Lines().back(),
              "Total file size = " + std::to_string(size) + " , Total packets = " + std::to_string(packets) + "\n");
  }
  EXPECT_EQ(progress.Reports(), (std::vector<int>{5, 100, 5, 100, 5, 100, 5, 100, 5, 100}));
}

TEST_F(DownloadTest, ConsoleMarksTheFirstDataPacket) {
  Start();
  const std::string out = Download(OnDevice("two", RandomBytes(58, 9)), dir / "two");
  EXPECT_EQ(out, std::string(lines::kOpened) + lines::kSpi + "\nThis is the actual first packet!\n" +
                     "Sequence = 0 , Total Packets = 2\n");
  EXPECT_TRUE(log.Has("Starting file download now."));
}

// Given a device path of 39 characters, nothing goes to the device and the
// save file is untouched; 38 characters are served.
TEST_F(DownloadTest, DevicePathsUpToThirtyEightCharactersAreServed) {
  Start();
  const std::string longPath = "/tmp/" + std::string(34, 'p');
  WriteFile(dir / "keep", "kept");
  Download(longPath, dir / "keep");
  EXPECT_TRUE(log.Has("Error: The device path is longer than 38 characters - " + longPath));
  EXPECT_EQ(ReadFile(dir / "keep"), "kept");
  EXPECT_TRUE(device->Written().empty());

  Download(OnDevice(std::string(33, 'q'), "edge"), dir / "edge");
  EXPECT_EQ(ReadFile(dir / "edge"), "edge");
}

}  // namespace
}  // namespace ferrolt::test
