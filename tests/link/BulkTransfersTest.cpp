#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "link/DevicePacket.h"
#include "tests/link/LinkFixture.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;

// Generous bounds around the fixed waits: these tests check that a wait
// happened and ended, not how fast the machine is.
constexpr milliseconds kWriteWaitFloor{450};
constexpr milliseconds kBlockingWaitFloor{900};
constexpr milliseconds kReadWaitFloor{4};
constexpr milliseconds kSlack{1500};
constexpr milliseconds kFast{250};
constexpr milliseconds kTestTimeout{5000};

FakeBlock NumberedBlock(uint8_t first) {
  FakeBlock block{};
  for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(first + i);
  return block;
}

// Given an open link, a write reaches the OUT pipe and reports how the
// device took it, with the fixed wait and the right log lines.
class Writes : public LinkFixture {
 protected:
  void SetUp() override { OpenLink(); }
  TransferStatus Write(const Block& block) { return link.WritePacket(block.data(), 64, &log); }
  const Block packet = BuildTextPacket(PacketType::Version, "Version Retrieval");
};

TEST_F(Writes, AcceptedBlockIsDoneAndRecorded) {
  TransferStatus status{};
  EXPECT_LT(Timed([&] { status = Write(packet); }), kFast);
  EXPECT_EQ(status, TransferStatus::Done);
  ASSERT_EQ(backend.Written().size(), 1u);
  EXPECT_EQ(backend.Written()[0], packet);
  EXPECT_EQ(backend.WritePipes(), std::vector<uint8_t>{kFakeOutPipe});
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Writes, StalledPipeTimesOutAfterTheWriteWaitSilently) {
  backend.SetWriteOutcome(WriteOutcome::Withhold);
  TransferStatus status{};
  const milliseconds took = Timed([&] { status = Write(packet); });
  EXPECT_EQ(status, TransferStatus::TimedOut);
  EXPECT_GE(took, kWriteWaitFloor);
  EXPECT_LT(took, kWriteWaitFloor + kSlack);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Writes, LateCompletionDoesNotCompleteTheNextWrite) {
  backend.SetWriteOutcome(WriteOutcome::Withhold);
  EXPECT_EQ(Write(packet), TransferStatus::TimedOut);
  ASSERT_TRUE(backend.CompleteOldestWrite());  // the first write's late acknowledgement
  EXPECT_EQ(Write(packet), TransferStatus::TimedOut);

  auto third = std::async(std::launch::async, [&] { return Write(packet); });
  std::this_thread::sleep_for(milliseconds(20));
  ASSERT_TRUE(backend.CompleteOldestWrite());  // the second write's, also late
  ASSERT_TRUE(backend.CompleteOldestWrite());  // the third's
  ASSERT_EQ(third.wait_for(kTestTimeout), std::future_status::ready);
  EXPECT_EQ(third.get(), TransferStatus::Done);
  EXPECT_EQ(backend.Written().size(), 3u);
}

TEST_F(Writes, CancelWinsEvenWhenTheDeviceAcceptedTheBlock) {
  cancel.Set();
  TransferStatus status{};
  EXPECT_LT(Timed([&] { status = Write(packet); }), kFast);
  EXPECT_EQ(status, TransferStatus::Cancelled);
  EXPECT_EQ(backend.Written().size(), 1u);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Operation has been Canceled"});
}

TEST_F(Writes, CancelCutsAStalledWriteShort) {
  backend.SetWriteOutcome(WriteOutcome::Withhold);
  std::thread canceller([&] {
    std::this_thread::sleep_for(milliseconds(30));
    cancel.Set();
  });
  TransferStatus status{};
  const milliseconds took = Timed([&] { status = Write(packet); });
  canceller.join();
  EXPECT_EQ(status, TransferStatus::Cancelled);
  EXPECT_LT(took, kWriteWaitFloor);
}

TEST_F(Writes, FailedTransferIsReportedAsFailed) {
  backend.SetWriteOutcome(WriteOutcome::Fail);
  EXPECT_EQ(Write(packet), TransferStatus::Failed);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Failed to write to the bulk interface"});
  EXPECT_EQ(link.WritePacket(packet.data(), 64, nullptr), TransferStatus::Failed);
  EXPECT_EQ(log.Lines().size(), 1u);
}

TEST_F(Writes, RemovedDeviceAndClosedLinkWaitOutTheWriteWait) {
  backend.SetWriteOutcome(WriteOutcome::Withhold);
  auto stalled = std::async(std::launch::async, [&] { return Write(packet); });
  std::this_thread::sleep_for(milliseconds(20));
  backend.Remove();  // the outstanding write fails as the device goes
  ASSERT_EQ(stalled.wait_for(kTestTimeout), std::future_status::ready);
  EXPECT_EQ(stalled.get(), TransferStatus::Failed);

  TransferStatus status{};
  milliseconds took = Timed([&] { status = Write(packet); });
  EXPECT_EQ(status, TransferStatus::TimedOut);
  EXPECT_GE(took, kWriteWaitFloor);

  link.CloseDevice();
  took = Timed([&] { status = Write(packet); });
  EXPECT_EQ(status, TransferStatus::TimedOut);
  EXPECT_GE(took, kWriteWaitFloor);
  EXPECT_LT(took, kWriteWaitFloor + kSlack);
}

// Given an open link, reads hand over the device's blocks in order, each
// once, wait briefly when there is none, and keep an unfinished read for the
// next call.
class Reads : public LinkFixture {
 protected:
  void SetUp() override { OpenLink(); }
  TransferStatus Read(uint32_t* bytes) {
    *bytes = 0;
    return link.ReadPacket(buffer.data(), 64, &log, bytes);
  }
  Block buffer{};
};

TEST_F(Reads, QueuedBlocksArriveInOrder) {
  backend.QueueInBlock(NumberedBlock(1));
  backend.QueueInBlock(NumberedBlock(100));
  uint32_t bytes = 0;
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(bytes, 64u);
  EXPECT_EQ(buffer, NumberedBlock(1));
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(100));
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Reads, EmptyPipeTimesOutAfterTheReadWait) {
  uint32_t bytes = 7;
  TransferStatus status{};
  const milliseconds took = Timed([&] { status = Read(&bytes); });
  EXPECT_EQ(status, TransferStatus::TimedOut);
  EXPECT_EQ(bytes, 0u);
  EXPECT_GE(took, kReadWaitFloor);
  EXPECT_LT(took, kFast);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Reads, BlockArrivingAfterATimeOutGoesToTheNextRead) {
  uint32_t bytes = 0;
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  backend.QueueInBlock(NumberedBlock(9));
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(9));
  EXPECT_EQ(backend.ReadsStarted(), 1);
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
}

TEST_F(Reads, CancelledReadKeepsItsBlockForLater) {
  backend.QueueInBlock(NumberedBlock(3));
  cancel.Set();
  uint32_t bytes = 0;
  EXPECT_EQ(Read(&bytes), TransferStatus::Cancelled);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Operation has been Canceled"});
  cancel.Reset();
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(3));
}

TEST_F(Reads, PendingReadFailsWhenTheDeviceGoes) {
  uint32_t bytes = 0;
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  backend.Remove();
  EXPECT_EQ(Read(&bytes), TransferStatus::Failed);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"failed to read to the bulk interface"});
  TransferStatus status{};
  const milliseconds took = Timed([&] { status = Read(&bytes); });
  EXPECT_EQ(status, TransferStatus::TimedOut);
  EXPECT_GE(took, kReadWaitFloor);
}

TEST_F(Reads, CloseDropsThePendingReadAndReopenStartsAfresh) {
  uint32_t bytes = 0;
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  link.CloseDevice();
  EXPECT_EQ(backend.LiveConnections(), 0);
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  OpenLink();
  backend.QueueInBlock(NumberedBlock(5));
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(5));
  EXPECT_EQ(backend.ReadsStarted(), 2);
}

TEST_F(Reads, FlushDiscardsWaitingBlocksInThenOut) {
  backend.QueueInBlock(NumberedBlock(1));
  backend.QueueInBlock(NumberedBlock(2));
  link.FlushPipes();
  EXPECT_EQ(backend.FlushedPipes(), (std::vector<uint8_t>{kFakeInPipe, kFakeOutPipe}));
  uint32_t bytes = 0;
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
}

// Given an open link, the blocking read waits for a block up to its bound
// and ignores the cancel event.
class BlockingReads : public LinkFixture {
 protected:
  void SetUp() override { OpenLink(); }
  Block buffer{};
};

TEST_F(BlockingReads, BlockArrivingLaterIsReturned) {
  cancel.Set();
  std::thread device([&] {
    std::this_thread::sleep_for(milliseconds(50));
    backend.QueueInBlock(NumberedBlock(42));
  });
  int result = -1;
  const milliseconds took = Timed([&] { result = link.ReadPacketBlocking(buffer.data(), 64, &log); });
  device.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(buffer, NumberedBlock(42));
  EXPECT_LT(took, kBlockingWaitFloor);
}

TEST_F(BlockingReads, SilentDeviceEndsTheReadAtItsBound) {
  int result = -1;
  const milliseconds took = Timed([&] { result = link.ReadPacketBlocking(buffer.data(), 64, &log); });
  EXPECT_EQ(result, 1);
  EXPECT_GE(took, kBlockingWaitFloor);
  EXPECT_LT(took, kBlockingWaitFloor + kSlack);
  // The unfinished read is the one the next read waits on.
  backend.QueueInBlock(NumberedBlock(8));
  EXPECT_EQ(link.ReadPacketBlocking(buffer.data(), 64, &log), 0);
  EXPECT_EQ(buffer, NumberedBlock(8));
  EXPECT_EQ(backend.ReadsStarted(), 1);
}

TEST_F(BlockingReads, ClosedLinkFailsAtOnce) {
  link.CloseDevice();
  int result = -1;
  EXPECT_LT(Timed([&] { result = link.ReadPacketBlocking(buffer.data(), 64, &log); }), kFast);
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
}  // namespace ferrolt::test
