#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <optional>

#include "platform/emulator/EmulatorBackend.h"
#include "tests/platform/ScriptedDevice.h"

namespace ferrolt::platform {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using test::HelloBytes;
using test::ScriptedDevice;
using test::ScriptOptions;

constexpr const char* kListedPath =
    "\\\\?\\USB#VID_1209&PID_0001&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}";
// The backend gives up on a silent device after a second; leave room.
constexpr milliseconds kDiscoveryBound = 3000ms;

ScriptOptions Greeting(std::vector<uint8_t> bytes) {
  ScriptOptions options;
  options.greeting = std::move(bytes);
  return options;
}

// A backend on the device's endpoint that has listed it and opened its path.
struct Opened {
  std::unique_ptr<DeviceBackend> backend;
  std::unique_ptr<DeviceConnection> connection;
};

Opened OpenListed(const ScriptedDevice& device) {
  Opened opened{CreateEmulatorBackend(device.Endpoint()), nullptr};
  opened.backend->ListInterfaces();
  opened.connection = opened.backend->Open(kListedPath);
  return opened;
}

// Given a device that greets the host, the backend lists it under one path
// made from its hello, and opening that path adopts the connection.
TEST(EmulatorDiscoveryTest, HelloGivesOnePathWithItsIds) {
  ScriptedDevice device(Greeting(HelloBytes(0xBEEF, 0x0A0B, 0x04, 3, 0)));
  const InterfaceListing listing = CreateEmulatorBackend(device.Endpoint())->ListInterfaces();
  EXPECT_TRUE(listing.listed);
  EXPECT_EQ(listing.lastError, kErrorNoMoreItems);
  ASSERT_EQ(listing.paths.size(), 1u);
  EXPECT_EQ(listing.paths[0], "\\\\?\\USB#VID_BEEF&PID_0A0B&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}");
}

// Each listing connects afresh; only the listed path opens, in any letter
// case, and its connection is handed over once.
TEST(EmulatorDiscoveryTest, OpenAdoptsTheListedConnectionOnce) {
  ScriptedDevice device;
  auto backend = CreateEmulatorBackend(device.Endpoint());
  EXPECT_EQ(backend->Open(kListedPath), nullptr);
  backend->ListInterfaces();
  ASSERT_EQ(backend->ListInterfaces().paths.size(), 1u);
  EXPECT_EQ(device.Connections(), 2);
  EXPECT_EQ(backend->Open("\\\\?\\USB#VID_1209&PID_0001&MI_00#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}"),
            nullptr);
  std::string lowered = kListedPath;
  for (char& c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  auto connection = backend->Open(lowered);
  ASSERT_NE(connection, nullptr);
  EXPECT_TRUE(connection->Initialize());
  EXPECT_EQ(backend->Open(kListedPath), nullptr);
}

// Given a hello, the opened connection reports its speed; state 3 fails
// driver initialisation and state 4 the pipe query.
TEST(EmulatorDiscoveryTest, HelloSpeedAndStateShowWhenOpening) {
  ScriptedDevice ready(Greeting(HelloBytes(0x1209, 0x0001, 4, 2, 0)));
  const Opened opened = OpenListed(ready);
  ASSERT_NE(opened.connection, nullptr);
  EXPECT_TRUE(opened.connection->Initialize());
  uint8_t speed = 0;
  uint32_t error = 0;
  ASSERT_TRUE(opened.connection->QueryDeviceSpeed(speed, error));
  EXPECT_EQ(speed, kSpeedFull);

  ScriptedDevice noDriver(Greeting(HelloBytes(0x1209, 0x0001, 4, 3, 3)));
  const Opened first = OpenListed(noDriver);
  ASSERT_NE(first.connection, nullptr);
  EXPECT_FALSE(first.connection->Initialize());

  ScriptedDevice noEndpoints(Greeting(HelloBytes(0x1209, 0x0001, 4, 3, 4)));
  const Opened second = OpenListed(noEndpoints);
  ASSERT_NE(second.connection, nullptr);
  EXPECT_TRUE(second.connection->Initialize());
  uint8_t count = 0;
  EXPECT_FALSE(second.connection->QueryInterfaceSettings(count));
}

TEST(EmulatorDiscoveryTest, ReachesADeviceOverTcp) {
  ScriptOptions options;
  options.overTcp = true;
  ScriptedDevice device(options);
  const Opened opened = OpenListed(device);
  ASSERT_NE(opened.connection, nullptr);
  const test::Block block = test::MarkedBlock(7, 0x5A);
  auto write = opened.connection->StartWrite(0x01, block.data(), 64);
  ASSERT_NE(write, nullptr);
  ASSERT_TRUE(device.WaitForWrites(1, 2000ms));
  EXPECT_EQ(device.Writes()[0], block);
  device.SendAck();
  EXPECT_TRUE(write->Completion().WaitFor(2000ms));
}

// Given anything but a device that greets properly, the backend lists
// nothing, as a PC without the device does, within its bound, and opens nothing.
TEST(EmulatorAbsentDeviceTest, ListsNothingWithinItsBound) {
  test::TempDir dir;
  const std::string staleSocket = (dir / "stale.sock").string();
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, staleSocket.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
  ScriptOptions tcp;
  tcp.overTcp = true;
  const std::string refusedPort = ScriptedDevice(tcp).Endpoint();  // free a moment ago, nothing listens now
  ScriptOptions hangsUp = Greeting({'H', 0x09, 0x12});
  hangsUp.hangsUpAfterGreeting = true;

  struct Case {
    const char* name;
    std::string endpoint;                 // when there is no device
    std::optional<ScriptOptions> device;  // one that greets as these say
    milliseconds atLeast = 0ms;
    milliseconds below = kDiscoveryBound;
  };
  const Case cases[] = {
      {"no socket", (dir / "missing.sock").string(), std::nullopt},
      {"empty endpoint", "", std::nullopt},
      {"socket file with no listener", staleSocket, std::nullopt},
      {"refused TCP port", refusedPort, std::nullopt},
      {"garbage greeting", "", Greeting({'X', 0x09, 0x12, 0x01, 0x00, 0x04, 0x03, 0x00})},
      {"partial greeting", "", Greeting({'H', 0x09, 0x12, 0x01, 0x00, 0x04, 0x03})},
      // A hangup ends the wait for the hello at once.
      {"partial greeting, then a hangup", "", hangsUp, 0ms, 900ms},
      {"silent device, given up after the hello wait", "", Greeting({}), 900ms},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto device = c.device ? std::make_unique<ScriptedDevice>(*c.device) : nullptr;
    auto backend = CreateEmulatorBackend(device ? device->Endpoint() : c.endpoint);
    const auto start = std::chrono::steady_clock::now();
    const InterfaceListing listing = backend->ListInterfaces();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(listing.listed);
    EXPECT_TRUE(listing.paths.empty());
    EXPECT_EQ(listing.lastError, kErrorNoMoreItems);
    EXPECT_GE(elapsed, c.atLeast);
    EXPECT_LT(elapsed, c.below);
    EXPECT_EQ(backend->Open(kListedPath), nullptr);
  }
}

}  // namespace
}  // namespace ferrolt::platform
