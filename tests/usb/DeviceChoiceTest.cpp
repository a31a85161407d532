// Several devices with the same ids on one bus, and FERROLT_DEVICE choosing
// one of them by bus path or serial number: the tool, on its libusb backend,
// against two emulated devices (1-2 with serial DEVSIM0001, 1-20 with
// DEVSIM0002) or an empty bus.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/EndToEnd.h"
#include "tests/support/ExpectedLines.h"
#include "tests/usb/EmulatedUsbDevice.h"

namespace ferrolt::test::usb {
namespace {

constexpr milliseconds kRunLimit{20000};
constexpr const char* kProgCapStart = "Programming Captouch...\n";
constexpr const char* kFirstLine = "  1-2  serial:DEVSIM0001  high speed\n";
constexpr const char* kSecondLine = "  1-20  serial:DEVSIM0002  high speed\n";
constexpr const char* kNoDeviceHint =
    "ferrolt: no USB device 1209:0001 with interface 4 was found. 'lsusb -d 1209:0001' lists it when it is plugged "
    "in; then the udev rule\n"
    "  /usr/lib/udev/rules.d/70-ferrolt.rules (or /etc/udev/rules.d/):\n"
    "  SUBSYSTEM==\"usb\", ATTR{idVendor}==\"1209\", ATTR{idProduct}==\"0001\", TAG+=\"uaccess\"\n"
    "gives the user at the machine access. Without hardware, FERROLT_EMULATOR=SOCKET or tcp:HOST:PORT points "
    "ferrolt at ferrolt-devsim.\n";

enum class Bus { Empty, TwoDevices };
// FirstListed: the device the list of several names first (libusb's order).
enum class Receiver { First, Second, FirstListed, Neither };

struct ChoiceCase {
  const char* name;
  Bus bus;
  std::optional<std::string> choice;  // FERROLT_DEVICE
  Receiver receiver;
  std::string err;  // the whole of standard error
};

// The list of both devices, in the order given.
std::string ListOf(const char* firstListed, const char* secondListed) {
  return std::string("ferrolt: 2 devices have ids 1209:0001 and interface 4; the first is used:\n") + firstListed +
         secondListed + "Set FERROLT_DEVICE to the first or the second word of a line to choose that device.\n";
}

class DeviceChoice : public testing::TestWithParam<ChoiceCase> {};

// Given the bus and the choice, progCap's one block reaches the chosen device
// only, standard output is as with one device (or none), and standard error
// says what there was to choose from or why nothing was chosen.
TEST_P(DeviceChoice, ReachesTheChosenDeviceOnly) {
  const ChoiceCase& row = GetParam();
  TempDir dir;
  std::unique_ptr<DeviceUnderTest> first;
  EmulatedUsbDevice* bus = nullptr;
  if (row.bus == Bus::TwoDevices) {
    auto device = std::make_unique<EmulatedUsbDevice>();
    ASSERT_TRUE(device->Running()) << device->Error();
    ASSERT_TRUE(device->PlugAnother(dir / "second", "DEVSIM0002"));
    bus = device.get();
    first = std::move(device);
  } else {
    first = std::make_unique<EmptyUsbBus>();
  }
  std::vector<std::pair<std::string, std::string>> env;
  if (row.choice) env.emplace_back("FERROLT_DEVICE", *row.choice);
  const ProcessResult result = RunFerrolt({"progCap"}, *first, dir.Path(), kRunLimit, env);

  const bool found = row.receiver != Receiver::Neither;
  EXPECT_EQ(result.out.substr(0, std::string(kProgCapStart).size()), kProgCapStart);
  EXPECT_EQ(result.out.find(lines::kNotFound) != std::string::npos, !found) << result.out;
  Receiver receiver = row.receiver;
  if (receiver == Receiver::FirstListed) {
    // libusb lists devices in an order of its own: the list says which is first.
    const bool secondFirst = result.err == ListOf(kSecondLine, kFirstLine);
    receiver = secondFirst ? Receiver::Second : Receiver::First;
    EXPECT_TRUE(secondFirst || result.err == ListOf(kFirstLine, kSecondLine)) << result.err;
  } else {
    EXPECT_EQ(result.err, row.err);
  }
  EXPECT_EQ(result.exitStatus, 0);
  if (bus == nullptr) return;
  EXPECT_EQ(bus->Received().size(), receiver == Receiver::First ? 1u : 0u);
  EXPECT_EQ(ReadBlocks(dir / "second" / "received.bin").size(), receiver == Receiver::Second ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Choices, DeviceChoice,
    testing::Values(
        ChoiceCase{"NoneOfTwoUsesTheFirstListedAndListsBoth", Bus::TwoDevices, std::nullopt, Receiver::FirstListed, ""},
        ChoiceCase{"ByBusPath", Bus::TwoDevices, "1-20", Receiver::Second, ""},
        ChoiceCase{"ByBusPathOfTheFirst", Bus::TwoDevices, "1-2", Receiver::First, ""},
        ChoiceCase{"BySerialNumber", Bus::TwoDevices, "serial:DEVSIM0002", Receiver::Second, ""},
        ChoiceCase{
            "ByAPathNoDeviceHas", Bus::TwoDevices, "1-9", Receiver::Neither,
            std::string("ferrolt: FERROLT_DEVICE=1-9: no attached USB device has that place.\n") + kNoDeviceHint},
        ChoiceCase{"ByASerialNumberNoDeviceHas", Bus::TwoDevices, "serial:NOPE", Receiver::Neither,
                   std::string("ferrolt: FERROLT_DEVICE=serial:NOPE: no attached USB device has that serial "
                               "number.\n") +
                       kNoDeviceHint},
        ChoiceCase{"NoDeviceAtAll", Bus::Empty, std::nullopt, Receiver::Neither, kNoDeviceHint}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace ferrolt::test::usb
