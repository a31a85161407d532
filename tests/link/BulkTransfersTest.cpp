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

DeviceBlock NumberedBlock(uint8_t first) {
  DeviceBlock block{};
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

TEST_F(Writes, TakenBlockIsDoneSilentlyAndAFailedOneIsLogged) {
  TransferStatus status{};
  EXPECT_LT(Timed([&] { status = Write(packet); }), kFast);
  EXPECT_EQ(status, TransferStatus::Done);
  EXPECT_EQ(backend.Written(), std::vector<DeviceBlock>{packet});
  EXPECT_TRUE(log.Lines().empty());

  backend.OnWrite([](const Block&) { return false; });
  EXPECT_EQ(Write(packet), TransferStatus::Failed);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Failed to write to the bulk interface"});
  EXPECT_EQ(link.WritePacket(packet.data(), 64, nullptr), TransferStatus::Failed);
  EXPECT_EQ(log.Lines().size(), 1u);
}

// Given a stalled pipe, a write times out silently after the write wait, and
// its late completion never completes a later write.
TEST_F(Writes, StalledWriteTimesOutAndItsLateCompletionIsItsOwn) {
  backend.Stall(true);
  TransferStatus status{};
  const milliseconds took = Timed([&] { status = Write(packet); });
  EXPECT_EQ(status, TransferStatus::TimedOut);
  EXPECT_GE(took, kWriteWaitFloor);
  EXPECT_LT(took, kWriteWaitFloor + kSlack);
  ASSERT_TRUE(backend.CompleteOldestWrite());  // the first write's late acknowledgement
  EXPECT_EQ(Write(packet), TransferStatus::TimedOut);

  auto third = std::async(std::launch::async, [&] { return Write(packet); });
  std::this_thread::sleep_for(milliseconds(20));
  ASSERT_TRUE(backend.CompleteOldestWrite());  // the second write's, also late
  ASSERT_TRUE(backend.CompleteOldestWrite());  // the third's
  ASSERT_EQ(third.wait_for(kTestTimeout), std::future_status::ready);
  EXPECT_EQ(third.get(), TransferStatus::Done);
  EXPECT_EQ(backend.Written().size(), 3u);
  EXPECT_TRUE(log.Lines().empty());
}

// Given a signalled cancel, a write reports it even when the device took the
// block; a cancel during a stalled write cuts its wait short.
TEST_F(Writes, CancelWinsAndCutsAStalledWriteShort) {
  cancel.Set();
  TransferStatus status{};
  EXPECT_LT(Timed([&] { status = Write(packet); }), kFast);
  EXPECT_EQ(status, TransferStatus::Cancelled);
  EXPECT_EQ(backend.Written().size(), 1u);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Operation has been Canceled"});

  cancel.Reset();
  backend.Stall(true);
  std::thread canceller([&] {
    std::this_thread::sleep_for(milliseconds(30));
    cancel.Set();
  });
  const milliseconds took = Timed([&] { status = Write(packet); });
  canceller.join();
  EXPECT_EQ(status, TransferStatus::Cancelled);
  EXPECT_LT(took, kWriteWaitFloor);
}

TEST_F(Writes, RemovedDeviceAndClosedLinkWaitOutTheWriteWait) {
  backend.Stall(true);
  auto stalled = std::async(std::launch::async, [&] { return Write(packet); });
  std::this_thread::sleep_for(milliseconds(20));
  backend.Unplug();  // the outstanding write fails as the device goes
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
  TransferStatus Read(uint32_t* bytes) { return link.ReadPacket(buffer.data(), 64, &log, bytes); }
  Block buffer{};
};

TEST_F(Reads, EmptyPipeTimesOutAndLaterBlocksGoToTheNextReadsInOrder) {
  uint32_t bytes = 7;
  TransferStatus status{};
  const milliseconds took = Timed([&] { status = Read(&bytes); });
  EXPECT_EQ(status, TransferStatus::TimedOut);
  EXPECT_EQ(bytes, 0u);
  EXPECT_GE(took, kReadWaitFloor);
  EXPECT_LT(took, kFast);
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);

  backend.Send(NumberedBlock(9));
  backend.Send(NumberedBlock(100));
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(bytes, 64u);
  EXPECT_EQ(buffer, NumberedBlock(9));
  EXPECT_EQ(backend.ReadsStarted(), 1);  // the read that timed out took it
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(100));
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  EXPECT_TRUE(log.Lines().empty());
}

// Given packets that are no block (a zero-length or short one), the read
// reads again; a read that failed or was cancelled as its block arrived
// still brings the block.
TEST_F(Reads, OnlyWholeBlocksCountHoweverTheReadEnded) {
  uint32_t bytes = 0;
  backend.SendPacket(NumberedBlock(1), 0);
  backend.SendPacket(NumberedBlock(2), 13);
  backend.Send(NumberedBlock(3));
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(bytes, 64u);
  EXPECT_EQ(buffer, NumberedBlock(3));

  backend.SendPacket(NumberedBlock(4), 64, false);
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(4));
  EXPECT_TRUE(log.Lines().empty());

  backend.SendPacket(NumberedBlock(5), 10, false);
  EXPECT_EQ(Read(&bytes), TransferStatus::Failed);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"failed to read to the bulk interface"});
}

// Given a block that reached the pending read before the link closed (the
// answer to a block sent before a reconnect), the first read after reopening
// takes it.
TEST_F(Reads, ABlockThatArrivedBeforeACloseGoesToTheReadAfterTheReopen) {
  uint32_t bytes = 0;
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  backend.Send(NumberedBlock(6));
  link.CloseDevice();
  OpenLink();
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(6));
}

TEST_F(Reads, CancelledReadKeepsItsBlockForLater) {
  backend.Send(NumberedBlock(3));
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
  backend.Unplug();
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
  backend.Send(NumberedBlock(5));
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(5));
  EXPECT_EQ(backend.ReadsStarted(), 2);
}

// Given a pending read that took a block, a flush (IN, then OUT) drops that
// block; what the device still holds comes next.
TEST_F(Reads, FlushDropsTheBlockThePendingReadTook) {
  uint32_t bytes = 0;
  EXPECT_EQ(Read(&bytes), TransferStatus::TimedOut);
  backend.Send(NumberedBlock(1));  // taken by the pending read
  backend.Send(NumberedBlock(2));
  link.FlushPipes();
  EXPECT_EQ(backend.FlushedPipes(), (std::vector<uint8_t>{kDeviceInPipe, kDeviceOutPipe}));
  EXPECT_EQ(Read(&bytes), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(2));
  EXPECT_TRUE(log.Lines().empty());
}

// Given an open link, the blocking read waits for a block up to its bound
// and ignores the cancel event.
class BlockingReads : public Reads {};

TEST_F(BlockingReads, BlockArrivingLaterIsReturned) {
  cancel.Set();
  std::thread device([&] {
    std::this_thread::sleep_for(milliseconds(50));
    backend.Send(NumberedBlock(42));
  });
  int result = -1;
  const milliseconds took = Timed([&] { result = link.ReadPacketBlocking(buffer.data(), 64, &log); });
  device.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(buffer, NumberedBlock(42));
  EXPECT_LT(took, kBlockingWaitFloor);
}

// Given a silent device, the read ends at its bound and the next one waits on
// the same transfer; on a closed link it fails at once.
TEST_F(BlockingReads, SilentDeviceEndsTheReadAtItsBoundAndAClosedLinkAtOnce) {
  int result = -1;
  milliseconds took = Timed([&] { result = link.ReadPacketBlocking(buffer.data(), 64, &log); });
  EXPECT_EQ(result, 1);
  EXPECT_GE(took, kBlockingWaitFloor);
  EXPECT_LT(took, kBlockingWaitFloor + kSlack);
  backend.Send(NumberedBlock(8));
  EXPECT_EQ(link.ReadPacketBlocking(buffer.data(), 64, &log), 0);
  EXPECT_EQ(buffer, NumberedBlock(8));
  EXPECT_EQ(backend.ReadsStarted(), 1);

  link.CloseDevice();
  took = Timed([&] { result = link.ReadPacketBlocking(buffer.data(), 64, &log); });
  EXPECT_LT(took, kFast);
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
}  // namespace ferrolt::test
