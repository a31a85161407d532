#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/DeviceAdminFixture.h"

namespace ferrolt::test {
namespace {

constexpr uint8_t kUploadType = 5;

// Given a local file whose name follows a backslash, the upload stores it in
// the device's /tmp/ under the part after the backslash.
class UploadTest : public DevsimFixture {
 protected:
  // A local file named "C:\up\NAME" (one file name with backslashes in it).
  std::string LocalFile(const std::string& name, const std::string& bytes) {
    const fs::path path = dir / ("C:\\up\\" + name);
    WriteFile(path, bytes);
    return path.string();
  }
  std::string Upload(const std::string& localPath) {
    return Run([&](DeviceAdmin& a) {
      return a.UploadFileAsync(localPath, &progress, &log);
    });
  }
  fs::path OnDevice(const std::string& name) const { return root / "tmp" / name; }
  // The texts of the command blocks the device got.
  std::vector<std::string> BlockTexts() const {
    std::vector<std::string> texts;
    for (const Block& block : device->Written()) {
      const char* text = reinterpret_cast<const char*>(block.data());
      if (block[0] != kUploadType) texts.emplace_back(text, strnlen(text, block.size()));
    }
    return texts;
  }
};

// The device stores each packet's length bytes at its number: a whole file
// shows both were right.
TEST_F(UploadTest, FilesAroundOnePacketArriveWholeWithTheirCommands) {
  Start();
  for (size_t size : {size_t{0}, size_t{56}, size_t{57}, size_t{58}}) {
    const std::string name = "f" + std::to_string(size) + ".bin";
    const std::string bytes = RandomBytes(size, static_cast<unsigned>(size));
    const std::string out = Upload(LocalFile(name, bytes));
    EXPECT_TRUE(fs::exists(OnDevice(name))) << name;
    EXPECT_EQ(ReadFile(OnDevice(name)), bytes) << name;
    EXPECT_NE(out.find("File to send: " + name + "\n"), std::string::npos) << out;
  }
  EXPECT_EQ(BlockTexts(), (std::vector<std::string>{"Starting upload 0 0 f0.bin", "Ending upload",
                                                    "Starting upload 56 1 f56.bin", "Ending upload",
                                                    "Starting upload 57 1 f57.bin", "Ending upload",
                                                    "Starting upload 58 2 f58.bin", "Ending upload"}));
  EXPECT_EQ(WrittenOfType(kUploadType).size(), 4u);
}

TEST_F(UploadTest, RefusedPacketsAreSentAgainAndTheFileArrivesWhole) {
  Start({"upload-nack=1,3"});
  const std::string bytes = RandomBytes(5 * 57, 11);
  const std::string out = Upload(LocalFile("nacked.bin", bytes));
  EXPECT_EQ(ReadFile(OnDevice("nacked.bin")), bytes);
  std::vector<uint32_t> numbers;
  for (const Block& block : WrittenOfType(kUploadType)) numbers.push_back(block[1]);
  EXPECT_EQ(numbers, (std::vector<uint32_t>{0, 1, 1, 2, 3, 3, 4}));
  EXPECT_EQ(log.CountStartingWith("A NACK has occurred!"), 2u);
  EXPECT_EQ(log.CountStartingWith("Read data :04"), 2u);
  EXPECT_NE(out.find("\rProgress: 0%\rProgress: 20%\rProgress: 40%\rProgress: 60%\rProgress: 80%\n"),
            std::string::npos)
      << "a resent packet does not print its percentage again";
}

// Given a name too long for the start command ("Starting upload 1 1 " and 44
// characters make 64) or a file of 2 GiB, nothing reaches the device; a name
// of 43 characters is sent.
TEST_F(UploadTest, InputTheStartCommandCannotCarryIsRefusedBeforeAnythingIsWritten) {
  Start();
  const std::string longName(44, 'n');
  Upload(LocalFile(longName, "x"));
  EXPECT_TRUE(log.Has("Error: The file name is too long for the device - " + longName));

  const fs::path huge = dir / "huge.bin";
  WriteFile(huge, "");
  fs::resize_file(huge, 2147483648ull);  // sparse: no disk space used
  Upload(huge.string());
  EXPECT_TRUE(log.Has("Error: Files of 2 GiB or more can not be uploaded - " + huge.string()));
  EXPECT_TRUE(device->Written().empty());

  Upload(LocalFile(longName.substr(1), "x"));
  EXPECT_EQ(ReadFile(OnDevice(longName.substr(1))), "x");
}

// Given a cancel during the data phase, the upload stops at once without
// the end command, so the device never publishes the part that arrived.
TEST_F(UploadTest, CancelDuringTheDataPhaseEndsPromptlyWithoutTheEndCommand) {
  Start();
  const std::string local = LocalFile("big.bin", RandomBytes(4 << 20, 3));
  ASSERT_EQ(admin->UploadFileAsync(local, &progress, &log), 0);
  // Past the start command and its pause, into the data phase.
  WaitUntil([&] { return WrittenOfType(kUploadType).size() >= 10; }, std::chrono::seconds(20));
  const auto cancelAt = std::chrono::steady_clock::now();
  admin->CancelOperation(&log);
  const auto took = std::chrono::steady_clock::now() - cancelAt;
  EXPECT_LT(took, std::chrono::seconds(5));
  EXPECT_FALSE(admin->IsOperationRunning());
  EXPECT_EQ(log.CountStartingWith("Upload canceled after "), 1u);
  EXPECT_EQ(out.Text().find("Finished File Upload!"), std::string::npos);
  for (const std::string& text : BlockTexts()) EXPECT_NE(text, "Ending upload");
  EXPECT_FALSE(fs::exists(OnDevice("big.bin")));
}

// Given the read-back asked for, a copy that arrived whole is verified in one
// note after the upload's own lines; one the download request cannot name is
// said to be unverified, and the outcome is incomplete.
TEST_F(UploadTest, AReadBackVerifiesTheCopyOrSaysWhyNot) {
  Start();
  StderrCapture err;
  admin->ReadBackUploads(true);
  const std::string bytes = RandomBytes(3 * 57 + 5, 9);
  const std::string out = Upload(LocalFile("rb.bin", bytes));
  EXPECT_EQ(err.Text(), "ferrolt: verified: /tmp/rb.bin on the device holds the 176 bytes sent.\n");
  EXPECT_EQ(admin->LastOutcome(), Outcome::Done);
  EXPECT_TRUE(out.ends_with("Finished File Upload!\n")) << out;

  const std::string longName(34, 'n');
  Upload(LocalFile(longName, bytes));
  EXPECT_NE(err.Text().find("could not send /tmp/" + longName + " back"), std::string::npos) << err.Text();
  EXPECT_EQ(admin->LastOutcome(), Outcome::Incomplete);
}

}  // namespace
}  // namespace ferrolt::test
