#include <gtest/gtest.h>

#include "tests/e2e/FrontEndRuns.h"

namespace ferrolt::test {
namespace {

// Given a CLImode file with two verdict lines, each launches the command: the
// second meets the first still running.
TEST(FrontEndCliModeTest, EveryMatchingLineLaunchesAndTheSecondMeetsTheBusyGuard) {
  TempDir dir;
  const auto slowDevice = StartDevice({"--fault", "delay-replies=500"});
  ASSERT_TRUE(slowDevice->Running());
  WriteFile(dir / "CLImode", "CLI Mode = 0\nCLI Mode = 0");
  const ProcessResult result = RunFerrolt({"version"}, *slowDevice, dir.Path(), kRunLimit);
  EXPECT_EQ(CountOf(result.out, kBusyLine), 1u) << result.out;
  EXPECT_EQ(CountOf(result.out, "VersionInfoReadyCallBack:\tVersion - "), 1u) << result.out;
  EXPECT_EQ(result.exitStatus, 0);
  size_t versionRequests = 0;
  for (const Block& block : slowDevice->Received()) versionRequests += block[0] == 2;
  EXPECT_EQ(versionRequests, 1u);
}

}  // namespace
}  // namespace ferrolt::test
