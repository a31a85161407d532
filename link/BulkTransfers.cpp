// Single-block transfers over the open link, each with its wait. The link's
// fields are read under the lock, the I/O and the waits happen outside it:
// the response reader reads on its own thread while the worker writes, or
// even closes the link.
#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "link/UsbLink.h"

namespace ferrolt {

namespace {

constexpr const char* kWriteFailedText = "Failed to write to the bulk interface";
constexpr const char* kReadFailedText = "failed to read to the bulk interface";
constexpr const char* kCancelledText = "Operation has been Canceled";
// Positions in the wait list: the cancel event always comes first, so it
// wins over a completion at the same moment.
constexpr int kCancelSignalled = 0;
constexpr int kTransferCompleted = 1;

void LogTransferStatus(TransferStatus status, const char* failedText, ILogMessageCallBack* log) {
  if (log == nullptr) return;
  if (status == TransferStatus::Failed) log->LogMessageCallBack(failedText);
  if (status == TransferStatus::Cancelled) log->LogMessageCallBack(kCancelledText);
}

}  // namespace

TransferStatus UsbLink::WritePacket(const uint8_t* block, uint32_t length, ILogMessageCallBack* log) {
  return AwaitWrite(StartWrite(block, length), std::chrono::steady_clock::now() + limits::kWriteWait, log);
}

UsbLink::PendingWrite UsbLink::StartWrite(const uint8_t* block, uint32_t length) {
  return StartWrites(block, 1, length).front();
}

std::vector<UsbLink::PendingWrite> UsbLink::StartWrites(const uint8_t* blocks, size_t count, uint32_t length) {
  std::vector<PendingWrite> writes(count);
  // Not held through the wait: a close meanwhile releases the connection,
  // which ends the writes.
  const auto connection = Connection();
  if (connection == nullptr) return writes;
  std::vector<std::shared_ptr<platform::Transfer>> transfers =
      connection->StartWrites(BulkOutPipeId(), blocks, count, length);
  for (size_t i = 0; i < count; ++i) writes[i] = {std::move(transfers[i]), connection};
  return writes;
}

void UsbLink::WaitForWrite(const PendingWrite& write, std::chrono::steady_clock::time_point deadline) {
  if (write.transfer == nullptr) return;
  platform::WaitAny({&cancelEvent_, &write.transfer->Completion()}, platform::TimeLeft(deadline));
}

TransferStatus UsbLink::AwaitWrite(const PendingWrite& write, std::chrono::steady_clock::time_point deadline,
                                   ILogMessageCallBack* log, const QueuedBehind& queuedBehind) {
  // A write that failed at once never completes: it waits out its time-out
  // on the cancel event alone, as a stalled pipe would.
  const platform::Event* completion = write.transfer ? &write.transfer->Completion() : nullptr;
  TransferStatus status = TransferStatus::TimedOut;
  switch (platform::WaitAny({&cancelEvent_, completion}, platform::TimeLeft(deadline))) {
    case kCancelSignalled:
      status = TransferStatus::Cancelled;
      break;
    case kTransferCompleted:
      status = write.transfer->Succeeded() ? TransferStatus::Done : TransferStatus::Failed;
      break;
    case platform::kWaitFailed:
      status = TransferStatus::Failed;
      break;
    default:
      if (write.transfer && WithdrawWrite(write, queuedBehind ? queuedBehind() : std::vector<PendingWrite>{}))
        status = TransferStatus::Done;
      break;
  }
  LogTransferStatus(status, kWriteFailedText, log);
  return status;
}

// A write whose wait ran out would otherwise stay queued in the host
// controller, and a device that recovers would take it and every copy the
// caller sends after it. Where the stack can withdraw it, it is withdrawn and
// its end awaited; true when it went out all the same.
bool UsbLink::WithdrawWrite(const PendingWrite& write, const std::vector<PendingWrite>& queuedBehind) {
  platform::Transfer& transfer = *write.transfer;
  // A connection closed meanwhile has ended the write itself.
  const std::shared_ptr<platform::DeviceConnection> connection = write.startedOn.lock();
  if (connection) {
    // Newest first: a write withdrawn while later ones wait behind it would
    // let the next of them go out in its place.
    for (auto later = queuedBehind.rbegin(); later != queuedBehind.rend(); ++later)
      if (later->transfer) connection->Abort(*later->transfer);
    if (!connection->Abort(transfer)) return false;
  }
  // An abort that crossed the last handshake fails the write with all of its
  // bytes moved: the device has the block.
  return transfer.Completion().WaitFor(limits::kWithdrawWait) &&
         (transfer.Succeeded() || transfer.BytesTransferred() == transfer.RequestedLength());
}

TransferStatus UsbLink::ReadPacket(uint8_t* buffer, uint32_t length, ILogMessageCallBack* log,
                                   uint32_t* bytesReceived) {
  const TransferStatus status = ReadBlock(buffer, length, limits::kReadWait, ReadWait::WithCancel, bytesReceived);
  LogTransferStatus(status, kReadFailedText, log);
  return status;
}

int UsbLink::ReadPacketBlocking(uint8_t* buffer, uint32_t length, ILogMessageCallBack* /*log*/) {
  return ReadPacketWithStatus(buffer, length) == TransferStatus::Done ? 0 : 1;
}

TransferStatus UsbLink::ReadPacketWithStatus(uint8_t* buffer, uint32_t length) {
  uint32_t bytesReceived = 0;
  return ReadBlock(buffer, length, limits::kBlockingReadWait, ReadWait::WithoutCancel, &bytesReceived);
}

TransferStatus UsbLink::ReadBlock(uint8_t* buffer, uint32_t length, std::chrono::milliseconds wait, ReadWait kind,
                                  uint32_t* bytesReceived) {
  std::lock_guard<std::mutex> readLock(readMutex_);
  const auto deadline = std::chrono::steady_clock::now() + wait;
  const bool withCancel = kind == ReadWait::WithCancel;
  if (bytesReceived != nullptr) *bytesReceived = 0;
  for (;;) {
    const std::shared_ptr<platform::Transfer> transfer = OldestRead(length);
    if (transfer == nullptr && !withCancel) return TransferStatus::Failed;

    const platform::Event* completion = transfer ? &transfer->Completion() : nullptr;
    const int woke =
        platform::WaitAny({withCancel ? &cancelEvent_ : nullptr, completion}, platform::TimeLeft(deadline));
    // What the read holds now, looked at without waiting.
    const bool complete = transfer != nullptr && transfer->IsComplete();
    // A cancelled read stays queued, complete or not: the next read takes
    // its block, so none is lost.
    if (woke == kCancelSignalled) {
      if (bytesReceived != nullptr && complete) *bytesReceived = transfer->BytesTransferred();
      return TransferStatus::Cancelled;
    }
    if (!complete) return TransferStatus::TimedOut;
    ForgetOldestRead(transfer);

    // A whole block is a block, however the transfer ended: a read that was
    // cancelled or failed just as its data arrived still brought it.
    if (HoldsBlock(*transfer)) {
      const uint32_t copied = transfer->CopyData(buffer, length);
      if (bytesReceived != nullptr) *bytesReceived = copied;
      return TransferStatus::Done;
    }
    if (!transfer->Succeeded()) return woke == kTransferCompleted ? TransferStatus::Failed : TransferStatus::TimedOut;
    // A short or zero-length packet (a device may end a transfer that filled
    // whole packets with one) is no block: read again in the wait that is left.
    if (std::chrono::steady_clock::now() >= deadline) return TransferStatus::TimedOut;
  }
}

bool UsbLink::HoldsBlock(platform::Transfer& read) {
  return read.IsComplete() && read.BytesTransferred() == read.RequestedLength();
}

// Topped up at the start of each read rather than as each read is taken: the
// next read starts once the caller has handled the block before it.
std::shared_ptr<platform::Transfer> UsbLink::OldestRead(uint32_t length) {
  std::shared_ptr<platform::DeviceConnection> connection;
  uint8_t pipe = 0;
  size_t queued = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connection = WinUsbHandle;
    pipe = BulkInPipe;
    queued = queuedReads_.size();
  }
  for (; connection != nullptr && queued < limits::kReadsQueued; ++queued) {
    std::shared_ptr<platform::Transfer> transfer = connection->StartRead(pipe, length);
    if (transfer == nullptr) break;
    std::lock_guard<std::mutex> lock(mutex_);
    // Kept only while the link it was started on is still the open one.
    if (WinUsbHandle != connection) break;
    queuedReads_.push_back(std::move(transfer));
  }
  std::lock_guard<std::mutex> lock(mutex_);
  return queuedReads_.empty() ? nullptr : queuedReads_.front();
}

void UsbLink::ForgetOldestRead(const std::shared_ptr<platform::Transfer>& transfer) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!queuedReads_.empty() && queuedReads_.front() == transfer) queuedReads_.pop_front();
}

int UsbLink::DropArrivedBlocks() {
  Block arrived{};
  uint32_t received = 0;
  int dropped = 0;
  while (ReadBlock(arrived.data(), kBlockSize, std::chrono::milliseconds::zero(), ReadWait::WithoutCancel, &received) ==
         TransferStatus::Done)
    ++dropped;
  return dropped;
}

void UsbLink::FlushPipes() {
  std::shared_ptr<platform::DeviceConnection> connection;
  uint8_t inPipe = 0;
  uint8_t outPipe = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    queuedReads_.clear();
    connection = WinUsbHandle;
    inPipe = BulkInPipe;
    outPipe = BulkOutPipe;
  }
  if (connection == nullptr) return;
  connection->FlushPipe(inPipe);
  connection->FlushPipe(outPipe);
}

}  // namespace ferrolt
