// The emulator backend finds a device only where one greets it properly
// (what a proper hello gives is in tests/devsim/SocketServerTest.cpp).
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>

#include "platform/emulator/EmulatorBackend.h"
#include "tests/platform/ScriptedDevice.h"

namespace ferrolt::platform {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using test::kListedPath;
using test::ScriptedDevice;
using test::ScriptOptions;

// The backend gives up on a silent device after a second; leave room.
constexpr milliseconds kDiscoveryBound = 3000ms;

ScriptOptions Greeting(std::vector<uint8_t> bytes) {
  ScriptOptions options;
  options.greeting = std::move(bytes);
  return options;
}

// Given anything but a device that greets properly, the backend lists
// nothing, as a PC without the device does, within its bound, and opens nothing.
TEST(EmulatorAbsentDeviceTest, ListsNothingWithinItsBound) {
  test::TempDir dir;
  const std::string staleSocket = (dir / "stale.sock").string();
  test::LeaveStaleSocket(staleSocket);
  const std::string refusedPort = "tcp:127.0.0.1:" + std::to_string(test::FreeTcpPort());
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
