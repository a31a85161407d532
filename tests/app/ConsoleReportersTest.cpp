#include <gtest/gtest.h>

#include <string>

#include "app/ConsoleReporters.h"

namespace ferrolt {
namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// Given a report of each kind, it prints exactly its prefixed line.
class ConsoleReportersTest : public testing::Test {
 protected:
  CLogMessageCallback log_;
};

TEST_F(ConsoleReportersTest, ProgressAndVersionLines) {
  CProgressCallback progress;
  CVersionInfoReadyCallBack version;
  CaptureStdout();
  progress.ProgressChangeCallBack(42);
  version.VersionInfoReadyCallBack("Version - 86.1 %s");
  EXPECT_EQ(GetCapturedStdout(),
            "ProgressChangeCallBack:\t42 percent completed\n"
            "VersionInfoReadyCallBack:\tVersion - 86.1 %s\n");
}

TEST_F(ConsoleReportersTest, PercentSignsAfterTheSecondPass) {
  CaptureStdout();
  log_.LogMessageCallBack("Progress: %d%%%%", 42);
  log_.LogMessageCallBack("done %% of it");
  // Device text is never a format: its conversions print as they stand.
  log_.LogMessageCallBack("Device says: %s", "%n %s %d 100%");
  EXPECT_EQ(GetCapturedStdout(),
            "LogMessageCallBack:\tProgress: 42%\n"
            "LogMessageCallBack:\tdone % of it\n"
            "LogMessageCallBack:\tDevice says: %n %s %d 100%\n");
}

TEST_F(ConsoleReportersTest, LongMessageIsCutAt1023Characters) {
  const std::string longText(2000, 'x');
  CaptureStdout();
  log_.LogMessageCallBack("%s", longText.c_str());
  EXPECT_EQ(GetCapturedStdout(), "LogMessageCallBack:\t" + std::string(1023, 'x') + "\n");
}

}  // namespace
}  // namespace ferrolt
