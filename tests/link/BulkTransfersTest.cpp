// The transfer contract over the in-process device, and what the link
// decides alone where only that device can set the scene: a late completion,
// a failed read that brought its block, a block that crossed a close, a flush.
#include <future>
#include <thread>

#include "tests/link/LinkFixture.h"
#include "tests/link/TransferContract.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kTestTimeout{5000};

class InProcessPeer : public ContractPeer {
 public:
  platform::DeviceBackend& Backend() override { return device_; }
  void Stall() override { device_.Stall(true); }
  bool FailWrites() override {
    device_.OnWrite([](const DeviceBlock&) { return false; });
    return true;
  }
  void Send(const Block& block) override { device_.Send(block); }
  bool SendShortPackets() override {
    device_.SendPacket(DeviceBlock{}, 0);
    device_.SendPacket(DeviceBlock{}, kShortPacket);
    return true;
  }
  void Unplug() override { device_.Unplug(); }
  std::vector<Block> Taken(size_t /*count*/) override { return device_.Written(); }

 private:
  static constexpr uint32_t kShortPacket = 13;
  InProcessDevice device_;
};

FERROLT_TRANSFER_CONTRACT(InProcess, (PeerMaker{"in-process", [] { return std::make_unique<InProcessPeer>(); }}));

class LinkDecides : public LinkFixture {
 protected:
  void SetUp() override { OpenLink(); }
  TransferStatus Write() { return link.WritePacket(NumberedBlock(1).data(), kBlockSize, &log); }
  TransferStatus Read() { return link.ReadPacket(buffer.data(), kBlockSize, &log, &bytes); }
  Block buffer{};
  uint32_t bytes = 0;
};

// Given a stalled pipe, the late completion of a write whose wait ran out
// never completes a later write.
TEST_F(LinkDecides, ALateCompletionIsItsOwnWrites) {
  backend.Stall(true);
  EXPECT_EQ(Write(), TransferStatus::TimedOut);
  ASSERT_TRUE(backend.CompleteOldestWrite());
  EXPECT_EQ(Write(), TransferStatus::TimedOut);
  auto third = std::async(std::launch::async, [&] { return Write(); });
  std::this_thread::sleep_for(milliseconds(20));
  ASSERT_TRUE(backend.CompleteOldestWrite());  // the second write's, late
  ASSERT_TRUE(backend.CompleteOldestWrite());
  ASSERT_EQ(third.wait_for(kTestTimeout), std::future_status::ready);
  EXPECT_EQ(third.get(), TransferStatus::Done);
  EXPECT_TRUE(log.Lines().empty());
}

// Given a read that ended failed (or cancelled) as its block arrived, the
// block counts; with part of a block it is a failed read.
TEST_F(LinkDecides, AFailedReadThatBroughtAWholeBlockCounts) {
  backend.SendPacket(NumberedBlock(4), kBlockSize, false);
  EXPECT_EQ(Read(), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(4));
  backend.SendPacket(NumberedBlock(5), 10, false);
  EXPECT_EQ(Read(), TransferStatus::Failed);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"failed to read to the bulk interface"});
}

// Given a block that reached the pending read before the link closed (the
// answer to a block sent before a reconnect), the first read after the
// reopen takes it; a close with nothing pending leaves no connection.
TEST_F(LinkDecides, ABlockThatCrossedACloseGoesToTheReadAfterTheReopen) {
  EXPECT_EQ(Read(), TransferStatus::TimedOut);
  backend.Send(NumberedBlock(6));
  link.CloseDevice();
  EXPECT_EQ(backend.LiveConnections(), 0);
  OpenLink();
  EXPECT_EQ(Read(), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(6));
}

// Given queued reads that took blocks, a flush (IN, then OUT) drops those
// blocks; what the device sends after it comes next.
TEST_F(LinkDecides, FlushDropsTheBlocksTheQueuedReadsTook) {
  EXPECT_EQ(Read(), TransferStatus::TimedOut);
  backend.Send(NumberedBlock(1));
  backend.Send(NumberedBlock(2));
  link.FlushPipes();
  EXPECT_EQ(backend.FlushedPipes(), (std::vector<uint8_t>{kDeviceInPipe, kDeviceOutPipe}));
  backend.Send(NumberedBlock(3));
  EXPECT_EQ(Read(), TransferStatus::Done);
  EXPECT_EQ(buffer, NumberedBlock(3));
  EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
}  // namespace ferrolt::test
