#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/emulator/EmulatorBackend.h"
#include "tests/platform/ScriptedDevice.h"

namespace ferrolt::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::Block;
using test::MarkedBlock;
using test::ScriptedDevice;
using test::ScriptOptions;

constexpr const char* kListedPath =
    "\\\\?\\USB#VID_1209&PID_0001&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}";
constexpr uint8_t kOut = 0x01;
constexpr uint8_t kIn = 0x81;
// Long enough for anything that should happen; short enough to keep a failure quick.
constexpr auto kArrival = 2000ms;
// How long a transfer that should stay open is watched.
constexpr auto kQuiet = 100ms;

Block ReadBlock(Transfer& read) {
  Block block{};
  read.CopyData(block.data(), static_cast<uint32_t>(block.size()));
  return block;
}

// Given an opened emulator link to a scripted device, blocks cross the wire
// as frames, and each frame from the device completes the right transfer.
class EmulatorTransferTest : public ::testing::Test {
 protected:
  explicit EmulatorTransferTest(ScriptOptions options = {}) : device(options) {}

  void SetUp() override {
    backend = CreateEmulatorBackend(device.Endpoint());
    ASSERT_EQ(backend->ListInterfaces().paths.size(), 1u);
    connection = backend->Open(kListedPath);
    ASSERT_NE(connection, nullptr);
  }

  std::shared_ptr<Transfer> Write(const Block& block) {
    auto write = connection->StartWrite(kOut, block.data(), static_cast<uint32_t>(block.size()));
    EXPECT_NE(write, nullptr);
    return write;
  }

  // Blocks until the link has taken in everything the device sent before
  // this: the device's A for a fresh write follows all of it on the stream.
  void Sync() {
    auto marker = Write(MarkedBlock(0xEE, 0xEE));
    device.SendAck();
    ASSERT_TRUE(marker->Completion().WaitFor(kArrival));
  }

  // An open read stays open until the device sends a block, then holds it.
  void ExpectOpenUntilTheNextBlock(Transfer& read, const Block& block) {
    EXPECT_FALSE(read.Completion().WaitFor(kQuiet));
    device.SendBlock(block);
    ASSERT_TRUE(read.Completion().WaitFor(kArrival));
    EXPECT_EQ(ReadBlock(read), block);
  }

  ScriptedDevice device;
  std::unique_ptr<DeviceBackend> backend;
  std::unique_ptr<DeviceConnection> connection;
};

// Given open writes, each A completes the oldest, so a late A completes the
// write whose wait ran out and not the retry sent after it.
TEST_F(EmulatorTransferTest, AcksCompleteWritesInOrderSoALateAckCompletesItsOwnWrite) {
  auto stalled = Write(MarkedBlock(1, 1));
  // The caller's wait on the first write has run out; it sends again.
  EXPECT_FALSE(stalled->Completion().WaitFor(kQuiet));
  auto retry = Write(MarkedBlock(1, 1));
  ASSERT_TRUE(device.WaitForWrites(2, kArrival));

  device.SendAck();
  ASSERT_TRUE(stalled->Completion().WaitFor(kArrival));
  EXPECT_TRUE(stalled->Succeeded());
  EXPECT_EQ(stalled->BytesTransferred(), 64u);
  EXPECT_FALSE(retry->Completion().WaitFor(kQuiet));

  device.SendAck();
  ASSERT_TRUE(retry->Completion().WaitFor(kArrival));
  EXPECT_TRUE(retry->Succeeded());
}

TEST_F(EmulatorTransferTest, FlushOfOutFailsOpenWritesButTheirAcksStillCount) {
  auto flushed = Write(MarkedBlock(1, 1));
  ASSERT_TRUE(connection->FlushPipe(kOut));
  ASSERT_TRUE(flushed->Completion().WaitFor(kArrival));
  EXPECT_FALSE(flushed->Succeeded());

  auto next = Write(MarkedBlock(2, 2));
  ASSERT_TRUE(device.WaitForWrites(2, kArrival));
  device.SendAck();  // belongs to the flushed write
  EXPECT_FALSE(next->Completion().WaitFor(kQuiet));
  device.SendAck();
  ASSERT_TRUE(next->Completion().WaitFor(kArrival));
  EXPECT_TRUE(next->Succeeded());
  EXPECT_FALSE(flushed->Succeeded());
}

// Given blocks that come before any read, they wait and come out in order;
// given a read that comes first, the next block completes it.
TEST_F(EmulatorTransferTest, BlocksWaitForReadsInOrderAndAnOpenReadTakesTheNext) {
  device.SendBlock(MarkedBlock(1, 0xA1));
  device.SendBlock(MarkedBlock(2, 0xA2));
  Sync();
  for (uint8_t seq = 1; seq <= 2; ++seq) {
    auto read = connection->StartRead(kIn, 64);
    ASSERT_NE(read, nullptr);
    ASSERT_TRUE(read->Completion().WaitFor(kArrival));
    EXPECT_TRUE(read->Succeeded());
    EXPECT_EQ(read->BytesTransferred(), 64u);
    EXPECT_EQ(ReadBlock(*read), MarkedBlock(seq, static_cast<uint8_t>(0xA0 + seq)));
  }

  ExpectOpenUntilTheNextBlock(*connection->StartRead(kIn, 64), MarkedBlock(3, 0xB3));
}

// Given a flush of IN, open reads fail and queued blocks are gone; the next
// read takes the next block the device sends.
TEST_F(EmulatorTransferTest, FlushOfInFailsOpenReadsAndDiscardsQueuedBlocks) {
  auto open = connection->StartRead(kIn, 64);
  ASSERT_TRUE(connection->FlushPipe(kIn));
  ASSERT_TRUE(open->Completion().WaitFor(kArrival));
  EXPECT_FALSE(open->Succeeded());

  device.SendBlock(MarkedBlock(1, 0xC1));
  device.SendBlock(MarkedBlock(2, 0xC2));
  Sync();
  ASSERT_TRUE(connection->FlushPipe(kIn));
  ExpectOpenUntilTheNextBlock(*connection->StartRead(kIn, 64), MarkedBlock(3, 0xC3));
}

TEST_F(EmulatorTransferTest, WrongPipesStartNothing) {
  const Block block{};
  EXPECT_EQ(connection->StartWrite(kIn, block.data(), 64), nullptr);
  EXPECT_EQ(connection->StartRead(kOut, 64), nullptr);
  EXPECT_FALSE(connection->FlushPipe(0x02));
}

TEST_F(EmulatorTransferTest, ClosingTheConnectionFailsWhatIsOpen) {
  auto write = Write(MarkedBlock(1, 1));
  auto read = connection->StartRead(kIn, 64);
  connection.reset();
  EXPECT_TRUE(write->IsComplete());
  EXPECT_FALSE(write->Succeeded());
  EXPECT_TRUE(read->IsComplete());
  EXPECT_FALSE(read->Succeeded());
}

// How the device goes: the bytes it sends last, and whether it hangs up.
struct Removal {
  const char* name;
  std::vector<uint8_t> lastBytes;
  bool hangsUp;
};

// Given a device that goes away, open transfers fail and new ones do not start.
class EmulatorRemovedDeviceTest : public EmulatorTransferTest, public ::testing::WithParamInterface<Removal> {};

TEST_P(EmulatorRemovedDeviceTest, OpenTransfersFailAndNewOnesDoNotStart) {
  auto write = Write(MarkedBlock(1, 1));
  auto read = connection->StartRead(kIn, 64);
  ASSERT_TRUE(device.WaitForWrites(1, kArrival));
  if (!GetParam().lastBytes.empty()) device.SendRaw(GetParam().lastBytes);
  if (GetParam().hangsUp) device.Hangup();
  ASSERT_TRUE(read->Completion().WaitFor(kArrival));
  EXPECT_FALSE(read->Succeeded());
  ASSERT_TRUE(write->Completion().WaitFor(kArrival));
  EXPECT_FALSE(write->Succeeded());
  const Block block{};
  EXPECT_EQ(connection->StartWrite(kOut, block.data(), 64), nullptr);
  EXPECT_EQ(connection->StartRead(kIn, 64), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Removals, EmulatorRemovedDeviceTest,
                         ::testing::Values(Removal{"Hangup", {}, true}, Removal{"TornFrame", {'R', 1, 2, 3}, true},
                                           Removal{"UnknownFrame", {'Z'}, false}),
                         [](const ::testing::TestParamInfo<Removal>& info) { return std::string(info.param.name); });

// Given a device that stops reading, a write gives up within its bound
// instead of holding its caller.
class EmulatorDeafDeviceTest : public EmulatorTransferTest {
 protected:
  static ScriptOptions Deaf() {
    ScriptOptions options;
    options.readsFrames = false;
    return options;
  }
  EmulatorDeafDeviceTest() : EmulatorTransferTest(Deaf()) {}
};

TEST_F(EmulatorDeafDeviceTest, WritesStopOnceTheSocketIsFull) {
  constexpr int kMostFrames = 200000;  // far beyond any socket buffer
  const Block block{};
  const auto start = Clock::now();
  int started = 0;
  while (started < kMostFrames && connection->StartWrite(kOut, block.data(), 64) != nullptr) ++started;
  EXPECT_LT(started, kMostFrames);
  EXPECT_LT(Clock::now() - start, 10s);
  EXPECT_EQ(connection->StartRead(kIn, 64), nullptr);
}

}  // namespace
}  // namespace ferrolt::platform
