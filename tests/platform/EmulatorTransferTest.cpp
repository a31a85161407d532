#include <gtest/gtest.h>

#include <chrono>
#include <thread>

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

  ScriptedDevice device;
  std::unique_ptr<DeviceBackend> backend;
  std::unique_ptr<DeviceConnection> connection;
};

TEST_F(EmulatorTransferTest, WriteSendsOneFrameWithItsBlock) {
  Write(MarkedBlock(1, 0x11));
  Write(MarkedBlock(2, 0x22));
  ASSERT_TRUE(device.WaitForWrites(2, kArrival));
  const auto writes = device.Writes();
  EXPECT_EQ(writes[0], MarkedBlock(1, 0x11));
  EXPECT_EQ(writes[1], MarkedBlock(2, 0x22));
}

TEST_F(EmulatorTransferTest, ShortWriteIsPaddedToABlock) {
  const uint8_t text[] = {'h', 'i'};
  ASSERT_NE(connection->StartWrite(kOut, text, sizeof text), nullptr);
  ASSERT_TRUE(device.WaitForWrites(1, kArrival));
  Block expected{};
  expected[0] = 'h';
  expected[1] = 'i';
  EXPECT_EQ(device.Writes()[0], expected);
}

TEST_F(EmulatorTransferTest, AcksCompleteWritesInOrder) {
  auto first = Write(MarkedBlock(1, 1));
  auto second = Write(MarkedBlock(2, 2));
  ASSERT_TRUE(device.WaitForWrites(2, kArrival));
  EXPECT_FALSE(first->Completion().WaitFor(kQuiet));

  device.SendAck();
  ASSERT_TRUE(first->Completion().WaitFor(kArrival));
  EXPECT_TRUE(first->Succeeded());
  EXPECT_EQ(first->BytesTransferred(), 64u);
  EXPECT_FALSE(second->Completion().WaitFor(kQuiet));

  device.SendAck();
  ASSERT_TRUE(second->Completion().WaitFor(kArrival));
  EXPECT_TRUE(second->Succeeded());
}

TEST_F(EmulatorTransferTest, LateAckCompletesItsOwnWriteNotALaterOne) {
  auto stalled = Write(MarkedBlock(1, 1));
  // The caller's wait on the first write has run out; it sends again.
  EXPECT_FALSE(stalled->Completion().WaitFor(kQuiet));
  auto retry = Write(MarkedBlock(1, 1));
  ASSERT_TRUE(device.WaitForWrites(2, kArrival));

  device.SendAck();
  ASSERT_TRUE(stalled->Completion().WaitFor(kArrival));
  EXPECT_FALSE(retry->Completion().WaitFor(kQuiet));
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
}

TEST_F(EmulatorTransferTest, BlocksWaitForReadsAndComeOutInOrder) {
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
}

TEST_F(EmulatorTransferTest, OpenReadsTakeLaterBlocksOldestFirst) {
  auto first = connection->StartRead(kIn, 64);
  auto second = connection->StartRead(kIn, 64);
  EXPECT_FALSE(first->Completion().WaitFor(kQuiet));
  device.SendBlock(MarkedBlock(1, 0xB1));
  ASSERT_TRUE(first->Completion().WaitFor(kArrival));
  EXPECT_EQ(ReadBlock(*first), MarkedBlock(1, 0xB1));
  EXPECT_FALSE(second->Completion().WaitFor(kQuiet));
  device.SendBlock(MarkedBlock(2, 0xB2));
  ASSERT_TRUE(second->Completion().WaitFor(kArrival));
  EXPECT_EQ(ReadBlock(*second), MarkedBlock(2, 0xB2));
}

TEST_F(EmulatorTransferTest, FlushOfInDiscardsQueuedBlocks) {
  device.SendBlock(MarkedBlock(1, 0xC1));
  device.SendBlock(MarkedBlock(2, 0xC2));
  Sync();
  ASSERT_TRUE(connection->FlushPipe(kIn));
  auto read = connection->StartRead(kIn, 64);
  EXPECT_FALSE(read->Completion().WaitFor(kQuiet));
  device.SendBlock(MarkedBlock(3, 0xC3));
  ASSERT_TRUE(read->Completion().WaitFor(kArrival));
  EXPECT_EQ(ReadBlock(*read), MarkedBlock(3, 0xC3));
}

TEST_F(EmulatorTransferTest, FlushOfInFailsOpenReads) {
  auto read = connection->StartRead(kIn, 64);
  ASSERT_TRUE(connection->FlushPipe(kIn));
  ASSERT_TRUE(read->Completion().WaitFor(kArrival));
  EXPECT_FALSE(read->Succeeded());
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

// Given a device that goes away, open transfers fail and new ones do not start.
class EmulatorRemovedDeviceTest : public EmulatorTransferTest {
 protected:
  void ExpectRemoved(std::shared_ptr<Transfer> write, std::shared_ptr<Transfer> read) {
    ASSERT_TRUE(read->Completion().WaitFor(kArrival));
    EXPECT_FALSE(read->Succeeded());
    ASSERT_TRUE(write->Completion().WaitFor(kArrival));
    EXPECT_FALSE(write->Succeeded());
    const Block block{};
    EXPECT_EQ(connection->StartWrite(kOut, block.data(), 64), nullptr);
    EXPECT_EQ(connection->StartRead(kIn, 64), nullptr);
  }
};

TEST_F(EmulatorRemovedDeviceTest, Hangup) {
  auto write = Write(MarkedBlock(1, 1));
  auto read = connection->StartRead(kIn, 64);
  ASSERT_TRUE(device.WaitForWrites(1, kArrival));
  device.Hangup();
  ExpectRemoved(write, read);
}

TEST_F(EmulatorRemovedDeviceTest, TornFrame) {
  auto write = Write(MarkedBlock(1, 1));
  auto read = connection->StartRead(kIn, 64);
  ASSERT_TRUE(device.WaitForWrites(1, kArrival));
  device.SendRaw({'R', 1, 2, 3});
  device.Hangup();
  ExpectRemoved(write, read);
}

TEST_F(EmulatorRemovedDeviceTest, UnknownFrame) {
  auto write = Write(MarkedBlock(1, 1));
  auto read = connection->StartRead(kIn, 64);
  ASSERT_TRUE(device.WaitForWrites(1, kArrival));
  device.SendRaw({'Z'});
  ExpectRemoved(write, read);
}

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
