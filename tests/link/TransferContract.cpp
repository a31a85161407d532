#include "tests/link/TransferContract.h"

#include <future>
#include <thread>

#include "link/DeviceIds.h"
#include "link/WriteWindow.h"
#include "tests/support/ClockSlack.h"
#include "tests/support/RecordingCallbacks.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;

// Generous bounds around the link's fixed waits (500 ms write, 5 ms read,
// 1 s blocking read): they check that a wait happened and ended, not how
// fast the machine is.
constexpr milliseconds kNone{0};
constexpr milliseconds kWriteWaitFloor{450};
constexpr milliseconds kReadWaitFloor{4};
constexpr milliseconds kBlockingWaitFloor{900};
constexpr milliseconds kSlack{1500};
constexpr milliseconds kFast{250};
// How long after the call starts a fault strikes, for a fault during a wait.
constexpr milliseconds kLater{50};

std::vector<std::string> LogFor(TransferStatus status, Call call) {
  if (call == Call::BlockingRead) return {};
  if (status == TransferStatus::Cancelled) return {"Operation has been Canceled"};
  if (status != TransferStatus::Failed) return {};
  return {call == Call::Write ? "Failed to write to the bulk interface" : "failed to read to the bulk interface"};
}

}  // namespace

const std::vector<ContractRow> kContractRows = {
    {"WriteTaken", Fault::None, Call::Write, TransferStatus::Done, kNone, kFast},
    {"WriteStalled", Fault::Stall, Call::Write, TransferStatus::TimedOut, kWriteWaitFloor, kWriteWaitFloor + kSlack},
    // The block went out: the cancel still wins.
    {"WriteCancelled", Fault::Cancel, Call::Write, TransferStatus::Cancelled, kNone, kFast},
    {"StalledWriteCancelled", Fault::StallThenCancel, Call::Write, TransferStatus::Cancelled, kLater, kWriteWaitFloor},
    {"StalledWriteUnplugged", Fault::StallThenUnplug, Call::Write, TransferStatus::Failed, kLater, kWriteWaitFloor},
    {"WriteFails", Fault::FailWrites, Call::Write, TransferStatus::Failed, kNone, kFast},
    {"WriteUnplugged", Fault::Unplug, Call::Write, TransferStatus::TimedOut, kWriteWaitFloor, kWriteWaitFloor + kSlack},
    {"WriteClosedLink", Fault::ClosedLink, Call::Write, TransferStatus::TimedOut, kWriteWaitFloor,
     kWriteWaitFloor + kSlack},
    {"ReadEmpty", Fault::None, Call::Read, TransferStatus::TimedOut, kReadWaitFloor, kFast},
    // Two blocks wait: each read takes one, in order.
    {"ReadBlock", Fault::BlockWaiting, Call::Read, TransferStatus::Done, kNone, kFast},
    {"ReadShortPacketsAreNoBlocks", Fault::ShortPacketsThenBlock, Call::Read, TransferStatus::Done, kNone, kFast},
    // The block stays for the next read.
    {"ReadCancelled", Fault::Cancel, Call::Read, TransferStatus::Cancelled, kNone, kFast},
    {"PendingReadTakesTheNextBlock", Fault::BlockWaiting, Call::ReadAfterPendingRead, TransferStatus::Done, kNone,
     kFast},
    {"PendingReadUnplugged", Fault::Unplug, Call::ReadAfterPendingRead, TransferStatus::Failed, kNone, kFast},
    {"ReadClosedLink", Fault::ClosedLink, Call::Read, TransferStatus::TimedOut, kReadWaitFloor, kFast},
    {"BlockingReadSilent", Fault::None, Call::BlockingRead, TransferStatus::TimedOut, kBlockingWaitFloor,
     kBlockingWaitFloor + kSlack},
    {"BlockingReadIgnoresTheCancel", Fault::BlockLater, Call::BlockingRead, TransferStatus::Done, kNone,
     kBlockingWaitFloor},
    {"BlockingReadClosedLink", Fault::ClosedLink, Call::BlockingRead, TransferStatus::TimedOut, kNone, kFast},
};

std::string ContractCaseName(const ::testing::TestParamInfo<TransferContract::ParamType>& info) {
  return std::get<1>(info.param).name;
}

// Given a link opened on the backend and the row's fault, the row's call
// gives its status within its bounds, logs what that status logs, and moves
// the right block.
TEST_P(TransferContract, StatusAndTime) {
  const auto& [maker, row] = GetParam();
  const std::unique_ptr<ContractPeer> peer = maker.make();
  platform::Event cancel;
  UsbLink link{peer->Backend(), cancel};
  RecordingLog log;
  ::testing::internal::CaptureStdout();
  const bool opened = link.ConnectDevice(kProductId, kVendorId, &log);
  ::testing::internal::GetCapturedStdout();
  ASSERT_TRUE(opened);

  const Block block = NumberedBlock(9);
  const Block second = NumberedBlock(100);
  Block buffer{};
  uint32_t bytes = 0;
  const auto read = [&] { return link.ReadPacket(buffer.data(), kBlockSize, &log, &bytes); };
  if (row.call == Call::ReadAfterPendingRead) {
    ASSERT_EQ(read(), TransferStatus::TimedOut);
  }

  // A fault during the wait strikes kLater after the call starts, not
  // after the thread that brings it does.
  std::thread later;
  std::promise<std::chrono::steady_clock::time_point> started;
  const auto strikeLater = [&](const std::function<void()>& fault) {
    later = std::thread([fault, start = started.get_future()]() mutable {
      std::this_thread::sleep_until(start.get() + kLater);
      fault();
    });
  };
  switch (row.fault) {
    case Fault::None: break;
    case Fault::Stall: peer->Stall(); break;
    case Fault::FailWrites:
      if (!peer->FailWrites()) GTEST_SKIP() << "the transport cannot fail a write";
      break;
    case Fault::StallThenCancel:
      peer->Stall();
      strikeLater([&] { cancel.Set(); });
      break;
    case Fault::StallThenUnplug:
      peer->Stall();
      strikeLater([&] { peer->Unplug(); });
      break;
    case Fault::Unplug: peer->Unplug(); break;
    case Fault::Cancel:
      cancel.Set();
      peer->Send(block);
      break;
    case Fault::ClosedLink: link.CloseDevice(); break;
    case Fault::BlockWaiting:
      peer->Send(block);
      peer->Send(second);
      break;
    case Fault::ShortPacketsThenBlock:
      if (!peer->SendShortPackets()) GTEST_SKIP() << "the transport carries whole blocks only";
      peer->Send(block);
      break;
    case Fault::BlockLater:
      cancel.Set();
      strikeLater([&] { peer->Send(block); });
      break;
  }

  TransferStatus status{};
  const auto start = std::chrono::steady_clock::now();
  started.set_value(start);
  switch (row.call) {
    case Call::Write: status = link.WritePacket(block.data(), kBlockSize, &log); break;
    case Call::Read:
    case Call::ReadAfterPendingRead: status = read(); break;
    case Call::BlockingRead:
      status = link.ReadPacketBlocking(buffer.data(), kBlockSize, &log) == 0 ? TransferStatus::Done
                                                                              : TransferStatus::TimedOut;
      break;
  }
  const auto took = std::chrono::steady_clock::now() - start;
  if (later.joinable()) later.join();

  EXPECT_EQ(status, row.status);
  EXPECT_GE(took, AtLeast(row.atLeast));
  EXPECT_LT(took, row.below);
  EXPECT_EQ(log.Lines(), LogFor(row.status, row.call));
  if (row.call == Call::Read && row.fault == Fault::Cancel) {
    cancel.Reset();
    EXPECT_EQ(read(), TransferStatus::Done);
    EXPECT_EQ(buffer, block);
  }
  // A write the device took went out, cancelled or not.
  if (row.call == Call::Write && (row.fault == Fault::None || row.fault == Fault::Cancel)) {
    EXPECT_EQ(peer->Taken(1), std::vector<Block>{block});
  }
  if (row.call == Call::Write || row.status != TransferStatus::Done) return;
  EXPECT_EQ(buffer, block);
  if (row.call != Call::BlockingRead) {
    EXPECT_EQ(bytes, kBlockSize);
  }
  if (row.fault == Fault::BlockWaiting) {
    EXPECT_EQ(read(), TransferStatus::Done);
    EXPECT_EQ(buffer, second);
  }
}

namespace {

constexpr size_t kWindow = 8;
constexpr size_t kBlocksInFlight = 3 * kWindow;

// The link opened on the peer's backend, the console line of the open dropped.
bool Open(UsbLink& link) {
  ::testing::internal::CaptureStdout();
  const bool opened = link.ConnectDevice(kProductId, kVendorId, nullptr);
  ::testing::internal::GetCapturedStdout();
  return opened;
}

}  // namespace

// Given writes kept in flight by a window, they end in the order they were
// started, each done, and the device takes each block once, in that order.
TEST_P(InFlightContract, WritesEndInOrderAndEachBlockArrivesOnce) {
  const std::unique_ptr<ContractPeer> peer = GetParam().make();
  platform::Event cancel;
  UsbLink link{peer->Backend(), cancel};
  ASSERT_TRUE(Open(link));
  WriteWindow window(link, kWindow);
  std::vector<Block> sent;
  std::vector<int32_t> ended;
  for (size_t i = 0; i < kBlocksInFlight || !window.Empty();) {
    if (i < kBlocksInFlight && !window.Full()) {
      sent.push_back(NumberedBlock(static_cast<uint8_t>(i)));
      window.Start(sent.back().data(), kBlockSize, static_cast<int32_t>(i++));
      continue;
    }
    const WriteWindow::Ended end = window.AwaitOldest(nullptr);
    EXPECT_EQ(end.status, TransferStatus::Done) << "write " << end.tag;
    ended.push_back(end.tag);
  }
  std::vector<int32_t> inOrder(kBlocksInFlight);
  for (size_t i = 0; i < inOrder.size(); ++i) inOrder[i] = static_cast<int32_t>(i);
  EXPECT_EQ(ended, inOrder);
  EXPECT_EQ(peer->Taken(kBlocksInFlight), sent);
}

// Given blocks that arrive while reads are queued, each read takes the next
// in order; a read whose wait ran out and a cancelled read lose none.
TEST_P(InFlightContract, QueuedReadsDeliverInOrderAndLoseNoneAtACancel) {
  const std::unique_ptr<ContractPeer> peer = GetParam().make();
  platform::Event cancel;
  UsbLink link{peer->Backend(), cancel};
  ASSERT_TRUE(Open(link));
  Block buffer{};
  uint32_t bytes = 0;
  const auto read = [&] { return link.ReadPacket(buffer.data(), kBlockSize, nullptr, &bytes); };
  ASSERT_EQ(read(), TransferStatus::TimedOut);  // the queue is started, and stays
  constexpr uint8_t kBlocks = 5;
  for (uint8_t i = 0; i < kBlocks; ++i) peer->Send(NumberedBlock(i));
  for (uint8_t i = 0; i < kBlocks; ++i) {
    if (i == 2) {
      cancel.Set();
      EXPECT_EQ(read(), TransferStatus::Cancelled);
      cancel.Reset();
    }
    ASSERT_EQ(read(), TransferStatus::Done) << "block " << int{i};
    EXPECT_EQ(buffer, NumberedBlock(i));
  }
  EXPECT_EQ(read(), TransferStatus::TimedOut);
}

}  // namespace ferrolt::test
