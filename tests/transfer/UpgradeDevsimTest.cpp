// The upgrade table: a DeviceAdmin upgrading devsim's device in process,
// with the device's faults. Whatever the device refuses on the way, the
// bundle it stores equals the file, and the console shows what it refused.
#include <gtest/gtest.h>

#include "devsim/Bundle.h"
#include "tests/support/DeviceAdminFixture.h"

namespace ferrolt::test {
namespace {

// A few hundred KiB: thousands of packets, so NACKs land mid-stream.
constexpr size_t kLargeBundle = 300 * 1024;

constexpr size_t kAnyCount = ~size_t{0};

struct UpgradeCase {
  const char* name;
  size_t size;
  std::vector<std::string> faults;
  // A line the console must hold ("" for none), and whether the device
  // refused anything (the worker then went back).
  const char* consoleHas;
  bool resends;
  // How often the worker goes back, where the faults fix it.
  size_t rewinds = kAnyCount;
};

class UpgradeTable : public DevsimFixture, public testing::WithParamInterface<UpgradeCase> {};

TEST_P(UpgradeTable, StoresTheBundle) {
  const UpgradeCase& row = GetParam();
  Start(row.faults);
  // However fast the in-process writes, a NACK is seen before the stream ends.
  device->PaceOutByReads(true);
  // A bundle whose first packet reads as the end text is still data.
  std::string bundle = "Ending Upgrade" + RandomBytes(row.size, static_cast<unsigned>(row.size));
  bundle.resize(row.size);
  const fs::path path = dir / "bundle.img";
  WriteFile(path, bundle);
  const std::string console =
      Run([&](DeviceAdmin& a) { return a.UpgradeBundleAsync(path.string(), &progress, &log, false); });
  EXPECT_TRUE(log.Has("Please wait until reboot of device is done."));
  EXPECT_EQ(ReadFile(devsim::BundleImagePath(root)), bundle);
  EXPECT_NE(console.find("File Size = " + std::to_string(row.size) + "\n"), std::string::npos);
  EXPECT_NE(console.find(row.consoleHas), std::string::npos) << console.substr(0, 2000);
  EXPECT_EQ(console.find("Resending NACK packet") != std::string::npos, row.resends);
  // Writes in flight past a refused packet draw no second NACK from the
  // device and are no second rewind; a refusal of the resend itself is.
  if (row.rewinds != kAnyCount) {
    EXPECT_EQ(CountOf(console, "Resending NACK packet"), row.rewinds);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, UpgradeTable,
    testing::Values(
        UpgradeCase{"OnePacket", 57, {}, "", false},
        UpgradeCase{"NackAlwaysUpToTheBound", kLargeBundle, {"nack-always=50"}, "", true, 5},
        UpgradeCase{"CorruptPackets", kLargeBundle, {"corrupt=7,1500"}, "CRC error\n", true, 2},
        UpgradeCase{"NackBeyondTheCount", kLargeBundle, {"nack-beyond=20"}, "", false},
        UpgradeCase{"DoubleNack", kLargeBundle, {"double-nack=400"}, "Sequence error\n", true},
        UpgradeCase{"CorruptEndStatus", kLargeBundle, {"corrupt-status-crc"}, "CRC failed.\n", false},
        UpgradeCase{"Mixed", kLargeBundle, {"nack=10", "corrupt=900", "double-nack=3000"}, "", true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace ferrolt::test
