// The emulator link under the transfer contract, with a scripted device at
// its far end; and the wire's own rules: a device is found only where one
// greets properly, every A completes the oldest W, and a device that breaks
// the framing or stops reading is a removed device.
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/emulator/EmulatorBackend.h"
#include "tests/link/TransferContract.h"
#include "tests/platform/ScriptedDevice.h"
#include "tests/support/ClockSlack.h"

namespace ferrolt::test {
namespace {

using namespace std::chrono_literals;
using platform::Transfer;

constexpr uint8_t kOut = 0x01;
constexpr uint8_t kIn = 0x81;
// Long enough for anything that should happen; short enough to keep a failure quick.
constexpr auto kArrival = 2000ms;
// How long a transfer that should stay open is watched.
constexpr auto kQuiet = 100ms;
// The backend gives up on a silent device after a second; leave room.
constexpr auto kDiscoveryBound = 3000ms;

class EmulatorPeer : public ContractPeer {
 public:
  EmulatorPeer() { device_.AckWrites(true); }
  platform::DeviceBackend& Backend() override { return *backend_; }
  void Stall() override { device_.AckWrites(false); }
  bool FailWrites() override { return false; }
  void Send(const Block& block) override {
    device_.SendBlock(block);
    Settle();
  }
  bool SendShortPackets() override { return false; }
  void Unplug() override {
    device_.Hangup();
    Settle();
  }
  std::vector<Block> Taken(size_t count) override {
    device_.WaitForWrites(count, kArrival);
    return device_.Writes();
  }

 private:
  // The contract's calls wait 5 ms at least: what the device did must have
  // reached the host's side of the socket before they start.
  static void Settle() { std::this_thread::sleep_for(kQuiet); }

  ScriptedDevice device_;
  std::unique_ptr<platform::DeviceBackend> backend_ = platform::CreateEmulatorBackend(device_.Endpoint());
};

FERROLT_TRANSFER_CONTRACT(EmulatorLink, (PeerMaker{"emulator", [] { return std::make_unique<EmulatorPeer>(); }}));

ScriptOptions Greeting(std::vector<uint8_t> bytes) {
  ScriptOptions options;
  options.greeting = std::move(bytes);
  return options;
}

// Given anything but a device that greets properly, the backend lists
// nothing, as a PC without the device does, within its bound, and opens
// nothing. (A missing socket and a refused port: the hints' end-to-end rows.)
TEST(EmulatorAbsentDeviceTest, ListsNothingWithinItsBound) {
  TempDir dir;
  const std::string staleSocket = (dir / "stale.sock").string();
  LeaveStaleSocket(staleSocket);
  ScriptOptions hangsUp = Greeting({'H', 0x09, 0x12});
  hangsUp.hangsUpAfterGreeting = true;

  struct Case {
    const char* name;
    std::string endpoint;                 // when there is no device
    std::optional<ScriptOptions> device;  // one that greets as these say
    std::chrono::milliseconds atLeast = 0ms;
    std::chrono::milliseconds below = kDiscoveryBound;
  };
  const Case cases[] = {
      {"empty endpoint", "", std::nullopt},
      {"socket file with no listener", staleSocket, std::nullopt},
      {"garbage greeting", "", Greeting({'X', 0x09, 0x12, 0x01, 0x00, 0x04, 0x03, 0x00})},
      {"partial greeting", "", Greeting({'H', 0x09, 0x12, 0x01, 0x00, 0x04, 0x03})},
      // A hangup ends the wait for the hello at once.
      {"partial greeting, then a hangup", "", hangsUp, 0ms, 900ms},
      {"silent device, given up after the hello wait", "", Greeting({}), 900ms},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto device = c.device ? std::make_unique<ScriptedDevice>(*c.device) : nullptr;
    auto backend = platform::CreateEmulatorBackend(device ? device->Endpoint() : c.endpoint);
    const auto start = std::chrono::steady_clock::now();
    const platform::InterfaceListing listing = backend->ListInterfaces();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(listing.listed);
    EXPECT_TRUE(listing.paths.empty());
    EXPECT_EQ(listing.lastError, platform::kErrorNoMoreItems);
    EXPECT_GE(elapsed, AtLeast(c.atLeast));
    EXPECT_LT(elapsed, c.below);
    EXPECT_EQ(backend->Open(kListedPath), nullptr);
  }
}

// Given an opened emulator link to a scripted device.
class EmulatorWire : public ::testing::Test {
 protected:
  explicit EmulatorWire(ScriptOptions options = {}) : device(options) {}

  void SetUp() override {
    ASSERT_EQ(backend->ListInterfaces().paths.size(), 1u);
    connection = backend->Open(kListedPath);
    ASSERT_NE(connection, nullptr);
  }
  std::shared_ptr<Transfer> Write(uint8_t seq) {
    const Block block = NumberedBlock(seq);
    return connection->StartWrite(kOut, block.data(), static_cast<uint32_t>(block.size()));
  }

  ScriptedDevice device;
  std::unique_ptr<platform::DeviceBackend> backend = platform::CreateEmulatorBackend(device.Endpoint());
  std::unique_ptr<platform::DeviceConnection> connection;
};

// Given a write whose wait ran out, a retry and a flushed write, each A
// completes the oldest W: a late A is its own write's, and a flushed write
// keeps its failure though its A still counts.
TEST_F(EmulatorWire, EachAckCompletesTheOldestWrite) {
  auto stalled = Write(1);
  EXPECT_FALSE(stalled->Completion().WaitFor(kQuiet));
  auto retry = Write(1);
  ASSERT_TRUE(device.WaitForWrites(2, kArrival));
  device.SendAck();
  ASSERT_TRUE(stalled->Completion().WaitFor(kArrival));
  EXPECT_TRUE(stalled->Succeeded());
  EXPECT_EQ(stalled->BytesTransferred(), 64u);
  EXPECT_FALSE(retry->Completion().WaitFor(kQuiet));
  device.SendAck();
  ASSERT_TRUE(retry->Completion().WaitFor(kArrival));

  auto flushed = Write(2);
  ASSERT_TRUE(connection->FlushPipe(kOut));
  EXPECT_FALSE(flushed->Succeeded());
  auto next = Write(3);
  ASSERT_TRUE(device.WaitForWrites(4, kArrival));
  device.SendAck();  // the flushed write's
  EXPECT_FALSE(next->Completion().WaitFor(kQuiet));
  device.SendAck();
  ASSERT_TRUE(next->Completion().WaitFor(kArrival));
  EXPECT_TRUE(next->Succeeded());
  EXPECT_FALSE(flushed->Succeeded());
}

// Given blocks the host queued, a flush of IN drops them and fails the open
// read; wrong pipes start nothing.
TEST_F(EmulatorWire, FlushOfInDropsQueuedBlocksAndWrongPipesStartNothing) {
  device.SendBlock(NumberedBlock(0xC1));
  auto probe = Write(9);
  device.SendAck();  // follows the block on the stream: the block has arrived
  ASSERT_TRUE(probe->Completion().WaitFor(kArrival));
  ASSERT_TRUE(connection->FlushPipe(kIn));
  auto read = connection->StartRead(kIn, 64);
  EXPECT_FALSE(read->Completion().WaitFor(kQuiet));
  ASSERT_TRUE(connection->FlushPipe(kIn));
  EXPECT_FALSE(read->Succeeded());

  const Block block{};
  EXPECT_EQ(connection->StartWrite(kIn, block.data(), 64), nullptr);
  EXPECT_EQ(connection->StartRead(kOut, 64), nullptr);
  EXPECT_FALSE(connection->FlushPipe(0x02));
}

// How the device goes: the bytes it sends last, and whether it hangs up.
struct Removal {
  const char* name;
  std::vector<uint8_t> lastBytes;
  bool hangsUp;
};

class EmulatorRemoval : public EmulatorWire, public ::testing::WithParamInterface<Removal> {};

// Given a device that goes away or breaks the framing, open transfers fail
// and new ones do not start.
TEST_P(EmulatorRemoval, OpenTransfersFailAndNewOnesDoNotStart) {
  auto write = Write(1);
  auto read = connection->StartRead(kIn, 64);
  ASSERT_TRUE(device.WaitForWrites(1, kArrival));
  if (!GetParam().lastBytes.empty()) device.SendRaw(GetParam().lastBytes);
  if (GetParam().hangsUp) device.Hangup();
  ASSERT_TRUE(read->Completion().WaitFor(kArrival));
  EXPECT_FALSE(read->Succeeded());
  ASSERT_TRUE(write->Completion().WaitFor(kArrival));
  EXPECT_FALSE(write->Succeeded());
  EXPECT_EQ(Write(2), nullptr);
  EXPECT_EQ(connection->StartRead(kIn, 64), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Removals, EmulatorRemoval,
                         ::testing::Values(Removal{"Hangup", {}, true}, Removal{"TornFrame", {'R', 1, 2, 3}, true},
                                           Removal{"UnknownFrame", {'Z'}, false}),
                         [](const ::testing::TestParamInfo<Removal>& info) { return std::string(info.param.name); });

// Given a device that sends two blocks and hangs up, both blocks are still
// read, in order, before reads fail: they were delivered.
TEST_F(EmulatorWire, BlocksSentBeforeAHangupStayReadable) {
  auto write = Write(1);
  ASSERT_TRUE(device.WaitForWrites(1, kArrival));
  device.SendBlock(NumberedBlock(1));
  device.SendBlock(NumberedBlock(2));
  device.Hangup();
  // The unanswered write fails once the link has seen the hangup.
  ASSERT_TRUE(write->Completion().WaitFor(kArrival));
  for (uint8_t seq : {1, 2}) {
    auto read = connection->StartRead(kIn, 64);
    ASSERT_NE(read, nullptr);
    ASSERT_TRUE(read->Completion().WaitFor(kArrival));
    ASSERT_TRUE(read->Succeeded());
    Block got{};
    read->CopyData(got.data(), 64);
    EXPECT_EQ(got, NumberedBlock(seq));
  }
  auto after = connection->StartRead(kIn, 64);
  EXPECT_TRUE(after == nullptr || (after->Completion().WaitFor(kArrival) && !after->Succeeded()));
}

// Given a device that stops reading, writes give up once the socket is full
// instead of holding their caller.
class EmulatorDeafDevice : public EmulatorWire {
 protected:
  static ScriptOptions Deaf() {
    ScriptOptions options;
    options.readsFrames = false;
    return options;
  }
  EmulatorDeafDevice() : EmulatorWire(Deaf()) {}
};

TEST_F(EmulatorDeafDevice, WritesStopOnceTheSocketIsFull) {
  constexpr int kMostFrames = 200000;  // far beyond any socket buffer
  const auto start = std::chrono::steady_clock::now();
  int started = 0;
  while (started < kMostFrames && Write(0) != nullptr) ++started;
  EXPECT_LT(started, kMostFrames);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  EXPECT_EQ(connection->StartRead(kIn, 64), nullptr);
}

}  // namespace
}  // namespace ferrolt::test
