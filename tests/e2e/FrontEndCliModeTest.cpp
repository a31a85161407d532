#include <gtest/gtest.h>

#include "tests/e2e/FrontEndRuns.h"

namespace ferrolt::test {
namespace {

// Given CLImode files in separate working folders, each run obeys its own folder's file.
class FrontEndCliModeTest : public testing::Test {
 protected:
  ProcessResult Run(const std::vector<std::string>& args, const TempDir& cwd) {
    return RunFerrolt(args, *device_, cwd.Path(), kRunLimit);
  }
  std::unique_ptr<DeviceUnderTest> device_ = StartDevice();
  TempDir first_;
  TempDir second_;
};

TEST_F(FrontEndCliModeTest, SessionIsRememberedPerWorkingFolder) {
  ASSERT_TRUE(device_->Running());
  WriteFile(first_ / "CLImode", "some much longer earlier content\n");
  Run({"StartCli"}, first_);
  EXPECT_EQ(ReadFile(first_ / "CLImode"), "CLI Mode = 1\n");

  auto refused = StartFerrolt({"upload", "/x"}, *device_, first_.Path());
  const ProcessResult elsewhere = Run({"version"}, second_);
  EXPECT_EQ(refused->Wait(kRunLimit).out, kRefusedInCli);
  EXPECT_TRUE(HasLine(elsewhere.out, "NONVERBOSE MODE DETECTED!\n")) << elsewhere.out;
  EXPECT_FALSE(fs::exists(second_ / "CLImode"));

  Run({"stopcli"}, first_);
  EXPECT_EQ(ReadFile(first_ / "CLImode"), "CLI Mode = 0\n");
}

TEST_F(FrontEndCliModeTest, EveryMatchingLineLaunchesAndTheSecondMeetsTheBusyGuard) {
  const auto slowDevice = StartDevice({"--fault", "delay-replies=500"});
  ASSERT_TRUE(slowDevice->Running());
  WriteFile(first_ / "CLImode", "CLI Mode = 0\nCLI Mode = 0");
  const ProcessResult result = RunFerrolt({"version"}, *slowDevice, first_.Path(), kRunLimit);
  EXPECT_EQ(CountOf(result.out, kBusyLine), 1u) << result.out;
  EXPECT_EQ(CountOf(result.out, "VersionInfoReadyCallBack:\tVersion - "), 1u) << result.out;
  EXPECT_EQ(result.exitStatus, 0);
  size_t versionRequests = 0;
  for (const Block& block : slowDevice->Received()) versionRequests += block[0] == 2;
  EXPECT_EQ(versionRequests, 1u);
}

}  // namespace
}  // namespace ferrolt::test
