#include <gtest/gtest.h>

#include <cstring>

#include "devsim/DevicePackets.h"
#include "tests/support/EndToEnd.h"

namespace ferrolt::test {
namespace {

constexpr milliseconds kLongRun{180000};
constexpr size_t kLargeFile = 2 << 20;
// Every block on the emulated USB bus is a round trip through umockdev (about
// 1 ms each way), so the large file is smaller there.
constexpr size_t kLargeFileOverUsb = 256 << 10;

std::string Hex(const Block& block) { return devsim::HexOf(block.data(), block.size()); }

// Given the built tool and a running emulator, files travel both ways byte
// for byte and the console shows exactly what the user is promised.
class FileTransferTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(root / "var" / "log");
    WriteFile(root / "var" / "log" / "syslog", RandomBytes(5000, 8));
  }
  ProcessResult Ferrolt(const std::vector<std::string>& args, milliseconds timeout = milliseconds(60000)) {
    return RunFerrolt(args, *server, dir.Path(), timeout);
  }
  void Start(std::vector<std::string> args = {}) {
    server = StartDevice(std::move(args), root);
    ASSERT_TRUE(server->Running());
  }

  TempDir dir;
  fs::path root = dir / "device";
  std::unique_ptr<DeviceUnderTest> server;
};

TEST_F(FileTransferTest, ALargeFileGoesUpAndComesBackUnchanged) {
  Start();
  const std::string bytes = RandomBytes(SelectedTransport() == Transport::Usb ? kLargeFileOverUsb : kLargeFile, 77);
  WriteFile(dir / "big.bin", bytes);
  const ProcessResult up = Ferrolt({"upload", "big.bin"}, kLongRun);
  EXPECT_EQ(up.exitStatus, 0);
  EXPECT_NE(up.out.find("Finished File Upload!\n"), std::string::npos);
  EXPECT_TRUE(ReadFile(root / "tmp" / "big.bin") == bytes) << "upload differs";

  const ProcessResult down = Ferrolt({"download", "/tmp/big.bin", "back.bin"}, kLongRun);
  EXPECT_EQ(down.exitStatus, 0);
  EXPECT_TRUE(ReadFile(dir / "back.bin") == bytes) << "download differs";
}

TEST_F(FileTransferTest, UploadOfFiftyEightBytesPrintsExactlyThis) {
  Start();
  const std::string bytes = RandomBytes(58, 58);
  WriteFile(dir / "f58.bin", bytes);
  const ProcessResult run = Ferrolt({"upload", "f58.bin"});
  const Block first = devsim::MakePacket(devsim::kTypeUpload, 0, reinterpret_cast<const uint8_t*>(bytes.data()), 57);
  const Block second =
      devsim::MakePacket(devsim::kTypeUpload, 1, reinterpret_cast<const uint8_t*>(bytes.data()) + 57, 1);
  EXPECT_EQ(run.out,
            "Local Path  : f58.bin\nDevice speed: 3 (High speed).\n"
            "ProgressChangeCallBack:\t5 percent completed\nFile to send: f58.bin\nSPI SUPPORT IS TURNED ON!\n"
            "ProgressChangeCallBack:\t10 percent completed\n"
            "LogMessageCallBack:\tSucceeded in writing 'File Upload' to device.\n"
            "ProgressChangeCallBack:\t15 percent completed\nFILE UPLOADING TO DEVICE...\n"
            "\rProgress: 0%LogMessageCallBack:\tWrite data:" +
                Hex(first) + "\n\rProgress: 50%LogMessageCallBack:\tWrite data:" + Hex(second) +
                "\nLogMessageCallBack:\tSucceeded in writing 'Ending upload' to device.\n"
                "\n-------------------------------------------\nFile Size = 58\nPacket Count = 2\n"
                "ProgressChangeCallBack:\t100 percent completed\nFinished File Upload!\n");
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(ReadFile(root / "tmp" / "f58.bin"), bytes);
}

TEST_F(FileTransferTest, EmptyFilesTravelBothWays) {
  Start();
  WriteFile(dir / "empty", "");
  EXPECT_EQ(Ferrolt({"upload", "empty"}).exitStatus, 0);
  EXPECT_TRUE(fs::exists(root / "tmp" / "empty"));
  EXPECT_EQ(fs::file_size(root / "tmp" / "empty"), 0u);
  WriteFile(dir / "stale", "stale bytes");
  const ProcessResult run = Ferrolt({"download", "/tmp/empty", "stale"});
  EXPECT_NE(run.out.find("LogMessageCallBack:\tTotal file size = 0 , Total packets = 0\n"), std::string::npos);
  EXPECT_EQ(ReadFile(dir / "stale"), "");
}

// Given a path with forward slashes, the device is sent the whole path as the
// file name, and standard error says why.
TEST_F(FileTransferTest, AForwardSlashPathIsSentWholeAsTheName) {
  Start();
  fs::create_directories(dir / "sub");
  WriteFile(dir / "sub" / "f.bin", "abc");
  const ProcessResult run = Ferrolt({"upload", "sub/f.bin"});
  EXPECT_NE(run.out.find("File to send: sub/f.bin\n"), std::string::npos) << run.out;
  const std::vector<Block> received = server->Received();
  ASSERT_FALSE(received.empty());
  EXPECT_EQ(devsim::RawText(received.front()), "Starting upload 3 1 sub/f.bin");
  EXPECT_NE(run.err.find("ferrolt: the device gets \"sub/f.bin\" as the file name"), std::string::npos) << run.err;
}

// Given paths that do not exist on the PC, the tool says so and sends the
// device nothing.
TEST_F(FileTransferTest, MissingLocalPathsAreReportedAndNothingIsSent) {
  Start();
  const ProcessResult up = Ferrolt({"upload", "nofile.bin"});
  EXPECT_NE(up.out.find("LogMessageCallBack:\tError: Can not find specified file - nofile.bin\n"), std::string::npos);
  const ProcessResult down = Ferrolt({"download", "/tmp/x", "nofolder/x"});
  EXPECT_NE(down.out.find("LogMessageCallBack:\tError: Can not find specified file destination path - nofolder/x\n"),
            std::string::npos);
  const ProcessResult logs = Ferrolt({"logs", "nofolder/logs.zip"});
  EXPECT_NE(
      logs.out.find("LogMessageCallBack:\tError: Can not find specified log destination path - nofolder/logs.zip\n"),
      std::string::npos);
  EXPECT_TRUE(server->Received().empty());
  EXPECT_EQ(up.exitStatus + down.exitStatus + logs.exitStatus, 0);
}

TEST_F(FileTransferTest, LogArchiveSurvivesASequenceErrorAndPassesUnzip) {
  Start({"--fault", "bad-sequence=3"});
  const ProcessResult run = Ferrolt({"logs", "logs.zip"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_NE(run.out.find("LogMessageCallBack:\tExpected sequence 3, but got "), std::string::npos);
  EXPECT_NE(run.out.find("ProgressChangeCallBack:\t100 percent completed\n"), std::string::npos);
  ProcessOptions unzip;
  unzip.args = {"-t", (dir / "logs.zip").string()};
  unzip.timeout = milliseconds(10000);
  const ProcessResult test = RunProcess("/usr/bin/unzip", unzip);
  EXPECT_EQ(test.exitStatus, 0) << test.out;
  EXPECT_NE(test.out.find("syslog"), std::string::npos);
}

TEST_F(FileTransferTest, DownloadUnderReplyFaultsIsWholeOrTheLossIsSaid) {
  const std::string bytes = RandomBytes(100 * 57 + 5, 9);
  fs::create_directories(root / "tmp");
  WriteFile(root / "tmp" / "f", bytes);
  Start({"--fault", "interleave", "--fault", "long-length=4", "--fault", "corrupt-reply-crc=10"});
  const ProcessResult run = Ferrolt({"download", "/tmp/f", "f"});
  EXPECT_NE(run.out.find("LogMessageCallBack:\tERROR: CRC FAILED - 060A000000"), std::string::npos);
  EXPECT_NE(run.err.find("100 of 101 data packets arrived"), std::string::npos) << run.err;
  EXPECT_EQ(ReadFile(dir / "f"), bytes.substr(0, 10 * 57) + bytes.substr(11 * 57));
}

}  // namespace
}  // namespace ferrolt::test
