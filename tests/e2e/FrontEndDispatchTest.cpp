#include <gtest/gtest.h>

#include "tests/e2e/FrontEndRuns.h"

namespace ferrolt::test {
namespace {

// Given a device and no log path, the archive is named in the temporary folder.
class FrontEndLaunchTest : public testing::Test {
 protected:
  std::unique_ptr<DeviceUnderTest> device_ = StartDevice();
  TempDir dir_;
};

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
}

}  // namespace
}  // namespace ferrolt::test
