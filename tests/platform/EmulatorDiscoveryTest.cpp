#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "platform/emulator/EmulatorBackend.h"
#include "tests/platform/ScriptedDevice.h"

namespace ferrolt::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::HelloBytes;
using test::ScriptedDevice;
using test::ScriptOptions;

constexpr const char* kListedPath =
    "\\\\?\\USB#VID_1209&PID_0001&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}";
// The backend gives up on a silent device after a second; leave room.
constexpr auto kDiscoveryBound = 3000ms;

void ExpectNoDevice(const InterfaceListing& listing) {
  EXPECT_TRUE(listing.listed);
  EXPECT_TRUE(listing.paths.empty());
  EXPECT_EQ(listing.lastError, kErrorNoMoreItems);
}

ScriptOptions Greeting(std::vector<uint8_t> bytes) {
  ScriptOptions options;
  options.greeting = std::move(bytes);
  return options;
}

// Given a device that greets the host, the backend lists it under one path
// made from its hello, and opening that path adopts the connection.
class EmulatorDiscoveryTest : public ::testing::Test {};

TEST_F(EmulatorDiscoveryTest, HelloGivesOnePathWithItsIds) {
  ScriptedDevice device(Greeting(HelloBytes(0xBEEF, 0x0A0B, 0x04, 3, 0)));
  const InterfaceListing listing = CreateEmulatorBackend(device.Endpoint())->ListInterfaces();
  EXPECT_TRUE(listing.listed);
  EXPECT_EQ(listing.lastError, kErrorNoMoreItems);
  ASSERT_EQ(listing.paths.size(), 1u);
  EXPECT_EQ(listing.paths[0], "\\\\?\\USB#VID_BEEF&PID_0A0B&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}");
}

TEST_F(EmulatorDiscoveryTest, OpensTheListedPathInAnyCase) {
  ScriptedDevice device;
  auto backend = CreateEmulatorBackend(device.Endpoint());
  ASSERT_EQ(backend->ListInterfaces().paths.size(), 1u);
  std::string lowered = kListedPath;
  for (char& c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  auto connection = backend->Open(lowered);
  ASSERT_NE(connection, nullptr);
  EXPECT_TRUE(connection->Initialize());
  // The connection is handed over once.
  EXPECT_EQ(backend->Open(kListedPath), nullptr);
}

TEST_F(EmulatorDiscoveryTest, OpenRefusesAnUnlistedPath) {
  ScriptedDevice device;
  auto backend = CreateEmulatorBackend(device.Endpoint());
  EXPECT_EQ(backend->Open(kListedPath), nullptr);
  backend->ListInterfaces();
  EXPECT_EQ(backend->Open("\\\\?\\USB#VID_1209&PID_0001&MI_00#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}"),
            nullptr);
}

TEST_F(EmulatorDiscoveryTest, EachListingConnectsAfresh) {
  ScriptedDevice device;
  auto backend = CreateEmulatorBackend(device.Endpoint());
  backend->ListInterfaces();
  backend->ListInterfaces();
  EXPECT_NE(backend->Open(kListedPath), nullptr);
  EXPECT_EQ(device.Connections(), 2);
}

TEST_F(EmulatorDiscoveryTest, ReadyDeviceOffersTwoBulkPipesAndItsSpeed) {
  ScriptedDevice device(Greeting(HelloBytes(0x1209, 0x0001, 4, 2, 0)));
  auto backend = CreateEmulatorBackend(device.Endpoint());
  backend->ListInterfaces();
  auto connection = backend->Open(kListedPath);
  ASSERT_NE(connection, nullptr);
  ASSERT_TRUE(connection->Initialize());
  uint8_t count = 0;
  ASSERT_TRUE(connection->QueryInterfaceSettings(count));
  ASSERT_EQ(count, 2);
  PipeInfo out;
  PipeInfo in;
  ASSERT_TRUE(connection->QueryPipe(0, out));
  ASSERT_TRUE(connection->QueryPipe(1, in));
  EXPECT_FALSE(connection->QueryPipe(2, in));
  EXPECT_EQ(out.type, PipeType::Bulk);
  EXPECT_EQ(out.pipeId, 0x01);
  EXPECT_EQ(out.maximumPacketSize, 64);
  EXPECT_EQ(in.type, PipeType::Bulk);
  EXPECT_EQ(in.pipeId, 0x81);
  EXPECT_EQ(in.maximumPacketSize, 64);
  uint8_t speed = 0;
  uint32_t error = 0;
  ASSERT_TRUE(connection->QueryDeviceSpeed(speed, error));
  EXPECT_EQ(speed, kSpeedFull);
}

TEST_F(EmulatorDiscoveryTest, StateThreeFailsDriverInitialisation) {
  ScriptedDevice device(Greeting(HelloBytes(0x1209, 0x0001, 4, 3, 3)));
  auto backend = CreateEmulatorBackend(device.Endpoint());
  backend->ListInterfaces();
  auto connection = backend->Open(kListedPath);
  ASSERT_NE(connection, nullptr);
  EXPECT_FALSE(connection->Initialize());
}

TEST_F(EmulatorDiscoveryTest, StateFourFailsThePipeQuery) {
  ScriptedDevice device(Greeting(HelloBytes(0x1209, 0x0001, 4, 3, 4)));
  auto backend = CreateEmulatorBackend(device.Endpoint());
  backend->ListInterfaces();
  auto connection = backend->Open(kListedPath);
  ASSERT_NE(connection, nullptr);
  EXPECT_TRUE(connection->Initialize());
  uint8_t count = 0;
  EXPECT_FALSE(connection->QueryInterfaceSettings(count));
}

TEST_F(EmulatorDiscoveryTest, ReachesADeviceOverTcp) {
  ScriptOptions options;
  options.overTcp = true;
  ScriptedDevice device(options);
  auto backend = CreateEmulatorBackend(device.Endpoint());
  ASSERT_EQ(backend->ListInterfaces().paths.size(), 1u);
  auto connection = backend->Open(kListedPath);
  ASSERT_NE(connection, nullptr);
  const test::Block block = test::MarkedBlock(7, 0x5A);
  auto write = connection->StartWrite(0x01, block.data(), 64);
  ASSERT_NE(write, nullptr);
  ASSERT_TRUE(device.WaitForWrites(1, 2000ms));
  EXPECT_EQ(device.Writes()[0], block);
  device.SendAck();
  EXPECT_TRUE(write->Completion().WaitFor(2000ms));
}

// Given anything but a device that greets properly, the backend lists
// nothing, as a PC without the device does, and does so within its bound.
class EmulatorAbsentDeviceTest : public ::testing::Test {
 protected:
  void ExpectNoDeviceAt(const std::string& endpoint) {
    const auto start = Clock::now();
    ExpectNoDevice(CreateEmulatorBackend(endpoint)->ListInterfaces());
    EXPECT_LT(Clock::now() - start, kDiscoveryBound);
  }
  test::TempDir dir;
};

TEST_F(EmulatorAbsentDeviceTest, NoSocket) { ExpectNoDeviceAt((dir / "missing.sock").string()); }

TEST_F(EmulatorAbsentDeviceTest, EmptyEndpoint) { ExpectNoDeviceAt(""); }

TEST_F(EmulatorAbsentDeviceTest, SocketFileWithNoListener) {
  const std::string path = (dir / "stale.sock").string();
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
  ExpectNoDeviceAt(path);
}

TEST_F(EmulatorAbsentDeviceTest, RefusedTcpPort) {
  // A port that was free a moment ago: nothing listens there now.
  ScriptOptions options;
  options.overTcp = true;
  std::string endpoint;
  { endpoint = ScriptedDevice(options).Endpoint(); }
  ExpectNoDeviceAt(endpoint);
}

TEST_F(EmulatorAbsentDeviceTest, GarbageGreeting) {
  ScriptedDevice device(Greeting({'X', 0x09, 0x12, 0x01, 0x00, 0x04, 0x03, 0x00}));
  ExpectNoDeviceAt(device.Endpoint());
}

TEST_F(EmulatorAbsentDeviceTest, PartialGreetingThenHangup) {
  ScriptOptions options = Greeting({'H', 0x09, 0x12});
  options.hangsUpAfterGreeting = true;
  ScriptedDevice device(options);
  auto backend = CreateEmulatorBackend(device.Endpoint());
  const auto start = Clock::now();
  ExpectNoDevice(backend->ListInterfaces());
  // A hangup ends the wait for the hello at once.
  EXPECT_LT(Clock::now() - start, 900ms);
  EXPECT_EQ(backend->Open(kListedPath), nullptr);
}

TEST_F(EmulatorAbsentDeviceTest, PartialGreeting) {
  ScriptedDevice device(Greeting({'H', 0x09, 0x12, 0x01, 0x00, 0x04, 0x03}));
  ExpectNoDeviceAt(device.Endpoint());
}

TEST_F(EmulatorAbsentDeviceTest, SilentDeviceIsGivenUpAfterTheHelloWait) {
  ScriptedDevice device(Greeting({}));
  const auto start = Clock::now();
  ExpectNoDevice(CreateEmulatorBackend(device.Endpoint())->ListInterfaces());
  const auto elapsed = Clock::now() - start;
  EXPECT_GE(elapsed, 900ms);
  EXPECT_LT(elapsed, kDiscoveryBound);
}

// Given FERROLT_EMULATOR, the default backend is the emulator link.
TEST(DefaultBackendTest, EmulatorVariableSelectsTheEmulatorLink) {
  ScriptedDevice device;
  ASSERT_EQ(::setenv(kEmulatorVariable, device.Endpoint().c_str(), 1), 0);
  const InterfaceListing listing = CreateDefaultBackend()->ListInterfaces();
  ::unsetenv(kEmulatorVariable);
  ASSERT_EQ(listing.paths.size(), 1u);
  EXPECT_EQ(listing.paths[0], kListedPath);
}

}  // namespace
}  // namespace ferrolt::platform
