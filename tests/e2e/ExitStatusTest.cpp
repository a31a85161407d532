// The opt-in exit status: with FERROLT_EXIT_STATUS=1 each way a run can
// fail ends with its own status. (Without it every run ends with 0, as the
// scenario table checks; a cancelled run's status is in FrontEndSignalsTest.)
#include <gtest/gtest.h>

#include "tests/e2e/FrontEndRuns.h"

namespace ferrolt::test {
namespace {

enum class Device { Present, Absent };

struct StatusCase {
  const char* name;
  Device device;
  std::vector<std::string> devsimArgs;
  std::vector<std::string> args;
  bool optIn;
  int status;
};

class ExitStatus : public testing::TestWithParam<StatusCase> {
 protected:
  TempDir cwd;
};

TEST_P(ExitStatus, SaysHowTheRunEnded) {
  const StatusCase& row = GetParam();
  TempDir root;
  fs::create_directories(root / "tmp");
  WriteFile(root / "tmp" / "f", RandomBytes(40 * 57, 6));
  const auto device = row.device == Device::Present ? StartDevice(row.devsimArgs, root.Path()) : StartNoDevice();
  std::vector<std::pair<std::string, std::string>> env;
  if (row.optIn) env.emplace_back("FERROLT_EXIT_STATUS", "1");
  const ProcessResult result = RunFerrolt(row.args, *device, cwd.Path(), kRunLimit, env);
  EXPECT_EQ(result.exitStatus, row.status) << result.out << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    Runs, ExitStatus,
    testing::Values(
        StatusCase{"Done", Device::Present, {}, {"version"}, true, 0},
        StatusCase{"Usage", Device::Present, {}, {"bogus"}, true, 2},
        StatusCase{"HelpIsNoFault", Device::Present, {}, {"-h"}, true, 0},
        StatusCase{"NoDevice", Device::Absent, {}, {"version"}, true, 3},
        StatusCase{"RefusedOutsideCliMode", Device::Present, {}, {"cmd", "ls"}, true, 4},
        StatusCase{"Failed", Device::Present, {}, {"upgrade", "missing.img"}, true, 5},
        StatusCase{"Incomplete", Device::Present, {"--fault", "corrupt-reply-crc=10"}, {"download", "/tmp/f", "f"},
                   true, 6}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace ferrolt::test
