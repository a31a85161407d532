// Opening the device as only USB has it: the tool, on its libusb backend,
// against devices on an emulated USB bus that differ in speed, in where their
// ids and interfaces are, and in whether their vendor interface can be had.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/EndToEnd.h"
#include "tests/support/ExpectedLines.h"
#include "tests/usb/EmulatedUsbDevice.h"

namespace ferrolt::test::usb {
namespace {

constexpr milliseconds kRunLimit{20000};
using lines::kNotFound, lines::kConnectFailure;
constexpr const char* kDriverFailure =
    "LogMessageCallBack:\tError:WinUSB failed to initialize, WinUSB driver may be missing corrupt\n";
constexpr const char* kProgCapStart = "Programming Captouch...\n";
constexpr const char* kProgCapSent =
    "ProgressChangeCallBack:\t5 percent completed\nSPI SUPPORT IS TURNED ON!\n"
    "LogMessageCallBack:\tSent reboot message to device successfully.\n"
    "ProgressChangeCallBack:\t100 percent completed\n";

// Runs `ferrolt progCap` against each device at once (each run waits out its
// end wait, so together they take the time of one).
std::vector<ProcessResult> ProgCapOnEach(const std::vector<const DeviceUnderTest*>& devices, const TempDir& dir) {
  std::vector<std::unique_ptr<Subprocess>> runs;
  for (const DeviceUnderTest* device : devices) runs.push_back(StartFerrolt({"progCap"}, *device, dir.Path()));
  std::vector<ProcessResult> results;
  for (auto& run : runs) results.push_back(run->Wait(kRunLimit));
  return results;
}

std::unique_ptr<EmulatedUsbDevice> Device(std::vector<std::string> devsimArgs) {
  auto device = std::make_unique<EmulatedUsbDevice>(UsbDeviceOptions{std::move(devsimArgs), {}, {}});
  EXPECT_TRUE(device->Running()) << device->Error();
  return device;
}

// Given devices of each speed, the open prints the speed line of a
// high-speed device only: as on Windows, where full and low speed both report
// 1, which prints nothing. The command goes on either way.
TEST(UsbOpeningTest, PrintsTheSpeedLineOfHighSpeedDevicesOnly) {
  TempDir dir;
  const auto low = Device({"--speed", "1"});
  const auto full = Device({"--speed", "2"});
  const auto high = Device({"--speed", "3"});
  const auto results = ProgCapOnEach({low.get(), full.get(), high.get()}, dir);
  EXPECT_EQ(results[0].out, std::string(kProgCapStart) + kProgCapSent);
  EXPECT_EQ(results[1].out, std::string(kProgCapStart) + kProgCapSent);
  EXPECT_EQ(results[2].out, std::string(kProgCapStart) + "Device speed: 3 (High speed).\n" + kProgCapSent);
  for (const auto* device : {low.get(), full.get(), high.get()}) EXPECT_EQ(device->Received().size(), 1u);
}

// Given the right ids on interface 0 only, or other ids on interface 4, the
// tool finds nothing and says so as on an empty bus (usb:AbsentDevice).
TEST(UsbOpeningTest, FindsOnlyTheRightIdsOnInterfaceFour) {
  TempDir dir;
  const auto interfaceZero = Device({"--interface", "0"});
  const auto otherVendor = Device({"--vendor-id", "0x1234"});
  const auto otherProduct = Device({"--product-id", "0x0002"});
  const auto results = ProgCapOnEach({interfaceZero.get(), otherVendor.get(), otherProduct.get()}, dir);
  for (const ProcessResult& result : results) {
    EXPECT_EQ(result.out, std::string(kProgCapStart) + kNotFound + kConnectFailure);
    EXPECT_EQ(result.exitStatus, 0);
  }
  for (const auto* device : {interfaceZero.get(), otherVendor.get(), otherProduct.get()})
    EXPECT_TRUE(device->Received().empty());
}

// Given a vendor interface that another driver holds, the open fails at
// driver initialisation (status 3) with its own message, nothing is sent, and
// standard error says once what holds the interface.
TEST(UsbOpeningTest, AnInterfaceThatCannotBeClaimedFailsDriverInitialisation) {
  TempDir dir;
  const auto held = Device({"--state", "3"});
  const auto results = ProgCapOnEach({held.get()}, dir);
  EXPECT_EQ(results[0].out, std::string(kProgCapStart) + kDriverFailure);
  EXPECT_EQ(results[0].err.rfind("ferrolt: interface 4 of /dev/bus/usb/"), 0u) << results[0].err;
  EXPECT_NE(results[0].err.find("is held by another program or driver"), std::string::npos) << results[0].err;
  EXPECT_EQ(std::count(results[0].err.begin(), results[0].err.end(), '\n'), 1) << results[0].err;
  EXPECT_EQ(results[0].exitStatus, 0);
  EXPECT_TRUE(held->Received().empty());
  EXPECT_EQ(held->Events().find("link opened"), std::string::npos);
}

}  // namespace
}  // namespace ferrolt::test::usb
