#include <gtest/gtest.h>

#include <string>

#include "app/ConsoleReporters.h"

namespace ferrolt {
namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// Given a report of each kind, it prints exactly its prefixed line.
TEST(ConsoleReportersTest, ProgressAndVersionLines) {
  CProgressCallback progress;
  CVersionInfoReadyCallBack version;
  CaptureStdout();
  progress.ProgressChangeCallBack(42);
  version.VersionInfoReadyCallBack("Version - 86.1 %s");
  EXPECT_EQ(GetCapturedStdout(),
            "ProgressChangeCallBack:\t42 percent completed\n"
            "VersionInfoReadyCallBack:\tVersion - 86.1 %s\n");
}

TEST(ConsoleReportersTest, LogLinesResolvePercentSignsTwiceAndAreCutAt1023Characters) {
  CLogMessageCallback log;
  CaptureStdout();
  log.LogMessageCallBack("Progress: %d%%%%", 42);
  log.LogMessageCallBack("done %% of it");
  // Device text is never a format: its conversions print as they stand.
  log.LogMessageCallBack("Device says: %s", "%n %s %d 100%");
  log.LogMessageCallBack("%s", std::string(2000, 'x').c_str());
  EXPECT_EQ(GetCapturedStdout(),
            "LogMessageCallBack:\tProgress: 42%\n"
            "LogMessageCallBack:\tdone % of it\n"
            "LogMessageCallBack:\tDevice says: %n %s %d 100%\n"
            "LogMessageCallBack:\t" +
                std::string(1023, 'x') + "\n");
}

}  // namespace
}  // namespace ferrolt
