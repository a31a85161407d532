#include <gtest/gtest.h>

#include <csignal>

#include "devsim/DevicePackets.h"
#include "tests/support/EndToEnd.h"
#include "tests/support/ExpectedLines.h"

namespace ferrolt::test {
namespace {

constexpr milliseconds kLongRun{180000};
constexpr size_t kLargeFile = 2 << 20;
// Every block on the emulated USB bus is a round trip through umockdev (about
// 1 ms each way), so the large file is smaller there.
constexpr size_t kLargeFileOverUsb = 256 << 10;

// Given the built tool and a running emulator, files travel both ways byte
// for byte and the console shows exactly what the user is promised.
class FileTransferTest : public testing::Test {
 protected:
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

// A device learns nothing of a host that goes away: the rest of a download
// cut off by Ctrl+C is still queued for the host when the next run opens.
TEST_F(FileTransferTest, AVersionAfterACutOffDownloadPrintsOnlyItsOwnReply) {
  fs::create_directories(root / "tmp");
  WriteFile(root / "tmp" / "big", RandomBytes(kLargeFile, 3));
  Start({"--version", "1.2.3"});
  auto download = StartFerrolt({"download", "/tmp/big", "big"}, *server, dir.Path());
  ASSERT_TRUE(download->WaitForOutput("percent completed", milliseconds(30000))) << download->OutSoFar();
  download->Signal(SIGINT);
  EXPECT_EQ(download->Wait(milliseconds(30000)).exitStatus, 1);

  EXPECT_EQ(Ferrolt({"version"}).out, lines::VersionLines(lines::kQuiet, "1.2.3"));
}

// Given a file-size limit smaller than the download, the write fails: the
// run says so and ends normally, it is not killed by the limit's signal.
TEST_F(FileTransferTest, ADownloadPastAFileSizeLimitSaysSoAndIsNotKilled) {
  if (std::getenv("FERROLT_E2E_TOOL") != nullptr)
    GTEST_SKIP() << "the limit is set by a POSIX shell around the native tool";
  fs::create_directories(root / "tmp");
  WriteFile(root / "tmp" / "big", RandomBytes(64 << 10, 2));
  Start();
  ProcessOptions options;
  // 16 blocks of 512 bytes at most, whichever unit the shell's ulimit counts.
  options.args = {"-c", "ulimit -f 16 && exec \"$0\" \"$@\"", FERROLT_BIN, "download", "/tmp/big", "big"};
  options.cwd = dir.Path();
  options.env = server->Environment().set;
  options.unsetEnv = server->Environment().unset;
  const ProcessResult run = RunProcess("/bin/sh", options);
  EXPECT_EQ(run.termSignal, 0);
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_NE(run.err.find("writing big failed: File too large"), std::string::npos) << run.err;
  EXPECT_TRUE(fs::exists(dir / "big.incomplete"));
}

}  // namespace
}  // namespace ferrolt::test
