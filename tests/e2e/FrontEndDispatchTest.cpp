#include <gtest/gtest.h>

#include "tests/app/ExpectedHelpText.h"
#include "tests/e2e/FrontEndRuns.h"

namespace ferrolt::test {
namespace {

// Given command lines that launch nothing, it prints its answer and ends at once with status 0.
class FrontEndImmediateTest : public testing::Test {
 protected:
  ProcessResult Run(const std::vector<std::string>& args) {
    return RunFerrolt(args, *noDevice_, dir_.Path(), kRunLimit);
  }
  TempDir dir_;
  std::unique_ptr<DeviceUnderTest> noDevice_ = StartNoDevice();
};

TEST_F(FrontEndImmediateTest, HelpInAnyCase) {
  for (const char* word : {"-h", "-H"}) {
    const ProcessResult result = Run({word});
    EXPECT_EQ(result.out, ExpectedHelp());
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_LT(result.elapsed, kAtOnce);
  }
}

TEST_F(FrontEndImmediateTest, UnrecognisedWordsCountsAndWrongOrt) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"bogus"}, {"upgrade"}, {"-h", "x"}, {"cmd", "a", "b"}, {"endort", "-v"}}) {
    const ProcessResult result = Run(args);
    EXPECT_EQ(result.out, kUnrecognised) << args.size();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_LT(result.elapsed, kAtOnce);
  }
  const ProcessResult wrongOrt = Run({"StartOrt", "duration", "20"});
  EXPECT_EQ(wrongOrt.out, "Wrong ORT command!\n");
  EXPECT_LT(wrongOrt.elapsed, kAtOnce);
}

// Given a device, it launches the command the word and count name, in any letter case.
class FrontEndLaunchTest : public testing::Test {
 protected:
  ProcessResult Run(const std::vector<std::string>& args) { return RunFerrolt(args, *device_, dir_.Path(), kRunLimit); }
  std::unique_ptr<DeviceUnderTest> device_ = StartDevice();
  TempDir dir_;
};

TEST_F(FrontEndLaunchTest, VersionVerboseSwitchIgnoresCase) {
  ASSERT_TRUE(device_->Running());
  const ProcessResult verbose = Run({"VERSION", "-V"});
  EXPECT_TRUE(HasLine(verbose.out, "VERBOSE MODE DETECTED!\n")) << verbose.out;
  EXPECT_NE(verbose.out.find("VersionInfoReadyCallBack:\tVersion - "), std::string::npos);
  EXPECT_EQ(verbose.exitStatus, 0);
  EXPECT_GE(verbose.elapsed, kEndWaitAtLeast);

  const ProcessResult quiet = Run({"VersionRetrieval", "-v", "extra"});
  EXPECT_TRUE(HasLine(quiet.out, "NONVERBOSE MODE DETECTED!\n")) << quiet.out;
}

TEST_F(FrontEndLaunchTest, StartOrtSendsTheBuiltString) {
  ASSERT_TRUE(device_->Running());
  const ProcessResult result = Run({"startort", "EXTMIC", "reboot", "5", "duration", "20"});
  EXPECT_EQ(result.out.rfind("ORTstring = ort start EXTMIC reboot 5 duration 20 ", 0), 0u) << result.out;
  const std::vector<Block> received = device_->Received();
  ASSERT_FALSE(received.empty());
  EXPECT_EQ(received.back()[0], 8);
  EXPECT_EQ(PayloadTextOf(received.back()), "ort start EXTMIC reboot 5 duration 20 ");
}

TEST_F(FrontEndLaunchTest, DefaultLogPathInTheTemporaryFolder) {
  ASSERT_TRUE(device_->Running());
  ProcessOptions options;
  options.args = {"DownloadLogs"};
  options.env = {{"TMPDIR", dir_.Path().string()}};
  options.cwd = dir_.Path();
  options.timeout = kRunLimit;
  const ProcessResult result = RunFerrolt(options, *device_);
  const std::string head =
      "Since there was no log path argument was identified, your log files have been downloaded to:\n<" +
      dir_.Path().string() + "/TavrelLogs(";
  EXPECT_EQ(result.out.rfind(head, 0), 0u) << result.out;
  EXPECT_NE(result.out.find(").zip>\n"), std::string::npos);

  options.env[0].second = (dir_ / "absent").string();
  const ProcessResult noFolder = RunFerrolt(options, *device_);
  EXPECT_EQ(noFolder.out, "Please check and ensure user has a valid temporary folder.");
  EXPECT_GE(noFolder.elapsed, kEndWaitAtLeast);
}

}  // namespace
}  // namespace ferrolt::test
