#include "platform/emulator/EmulatorConnection.h"

#include <algorithm>
#include <cstring>

#include "platform/emulator/SocketIo.h"

namespace ferrolt::platform::emulator {

EmulatorConnection::EmulatorConnection(UniqueSocket socket, const Hello& hello)
    : socket_(std::move(socket)), hello_(hello), reader_([this] { ReadFrames(); }) {}

EmulatorConnection::~EmulatorConnection() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closing_ = true;
  }
  queueSpace_.notify_all();
  StopReading();
  reader_.join();
  EndLink();
}

bool EmulatorConnection::Initialize() { return hello_.state != kStateNoDriver; }

bool EmulatorConnection::QueryInterfaceSettings(uint8_t& endpointCount) {
  if (hello_.state == kStateEndpointsMissing) return false;
  endpointCount = kEndpointCount;
  return true;
}

bool EmulatorConnection::QueryPipe(uint8_t endpointIndex, PipeInfo& pipe) {
  if (hello_.state == kStateEndpointsMissing || endpointIndex >= kEndpointCount) return false;
  pipe.type = PipeType::Bulk;
  pipe.pipeId = endpointIndex == 0 ? kBulkOutPipe : kBulkInPipe;
  pipe.maximumPacketSize = kMaxPacketSize;
  return true;
}

bool EmulatorConnection::QueryDeviceSpeed(uint8_t& speed, uint32_t& /*error*/) {
  speed = hello_.speed;
  return true;
}

std::shared_ptr<Transfer> EmulatorConnection::StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) {
  return StartWrites(pipeId, data, 1, length).front();
}

std::vector<std::shared_ptr<Transfer>> EmulatorConnection::StartWrites(uint8_t pipeId, const uint8_t* blocks,
                                                                       size_t count, uint32_t length) {
  std::vector<std::shared_ptr<Transfer>> transfers(count);
  if (pipeId != kBulkOutPipe) return transfers;
  std::vector<uint8_t> frames(count * kWriteFrameSize, 0);
  for (size_t i = 0; i < count; ++i) {
    transfers[i] = std::make_shared<Transfer>(length);
    uint8_t* frame = frames.data() + i * kWriteFrameSize;
    frame[0] = kWriteFrame;
    if (blocks != nullptr) std::memcpy(frame + 1, blocks + i * length, transfers[i]->RequestedLength());
  }

  std::lock_guard<std::mutex> sending(sendMutex_);
  {
    // Queued before they are sent, so no A can arrive before it is expected.
    std::lock_guard<std::mutex> lock(mutex_);
    if (removed_) return std::vector<std::shared_ptr<Transfer>>(count);
    sentWrites_.insert(sentWrites_.end(), transfers.begin(), transfers.end());
  }
  if (!SendAll(socket_.Get(), frames.data(), frames.size(), kFrameSendWait)) {
    // A torn or undelivered frame leaves the stream unusable: the link is over.
    StopReading();
    EndLink();
    return std::vector<std::shared_ptr<Transfer>>(count);
  }
  return transfers;
}

std::shared_ptr<Transfer> EmulatorConnection::StartRead(uint8_t pipeId, uint32_t length) {
  if (pipeId != kBulkInPipe) return nullptr;
  auto transfer = std::make_shared<Transfer>(length);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // Blocks that came before the device closed the link were delivered:
    // reads take them before they fail.
    if (removed_ && receivedBlocks_.empty()) return nullptr;
    if (receivedBlocks_.empty()) {
      pendingReads_.push_back(transfer);
      return transfer;
    }
    transfer->Complete(true, receivedBlocks_.front().data(), kBlockSize);
    receivedBlocks_.pop_front();
  }
  queueSpace_.notify_all();
  return transfer;
}

bool EmulatorConnection::FlushPipe(uint8_t pipeId) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (removed_) return false;
  if (pipeId == kBulkOutPipe) {
    // The device still acknowledges these frames: they keep their places.
    for (const auto& write : sentWrites_) write->Complete(false, nullptr, 0);
    return true;
  }
  if (pipeId != kBulkInPipe) return false;
  receivedBlocks_.clear();
  for (const auto& read : pendingReads_) read->Complete(false, nullptr, 0);
  pendingReads_.clear();
  lock.unlock();
  queueSpace_.notify_all();
  return true;
}

void EmulatorConnection::ReadFrames() {
  while (ReadFrame()) {
  }
  EndLink();
}

// One frame from the device; false when the link has ended (end of stream,
// an error, a torn frame or a frame kind the link does not know).
bool EmulatorConnection::ReadFrame() {
  uint8_t kind = 0;
  if (!Receive(&kind, 1)) return false;
  if (kind == kAckFrame) {
    CompleteOldestWrite();
    return true;
  }
  if (kind != kReadFrame) return false;
  Block block{};
  return Receive(block.data(), block.size()) && QueueBlock(block);
}

bool EmulatorConnection::Receive(uint8_t* data, size_t size) {
  while (size > 0) {
    if (taken_ == received_) {
      taken_ = 0;
      received_ = ReceiveSome(socket_.Get(), receiveBuffer_.data(), receiveBuffer_.size(), stopReading_);
      if (received_ == 0) return false;
    }
    const size_t count = std::min(size, received_ - taken_);
    std::memcpy(data, receiveBuffer_.data() + taken_, count);
    taken_ += count;
    data += count;
    size -= count;
  }
  return true;
}

void EmulatorConnection::CompleteOldestWrite() {
  std::lock_guard<std::mutex> lock(mutex_);
  // An A with no write open is the device's mistake; there is nothing to complete.
  if (sentWrites_.empty()) return;
  const auto write = sentWrites_.front();
  sentWrites_.pop_front();
  write->Complete(true, nullptr, write->RequestedLength());
}

// Hands the block to the oldest waiting read, or keeps it until a read comes.
// Waits while the queue is full; false when the link is closing.
bool EmulatorConnection::QueueBlock(const Block& block) {
  std::unique_lock<std::mutex> lock(mutex_);
  queueSpace_.wait(lock, [this] { return closing_ || removed_ || receivedBlocks_.size() < kMaxQueuedInBlocks; });
  if (closing_ || removed_) return false;
  if (pendingReads_.empty()) {
    receivedBlocks_.push_back(block);
    return true;
  }
  const auto read = pendingReads_.front();
  pendingReads_.pop_front();
  read->Complete(true, block.data(), kBlockSize);
  return true;
}

// Wakes the reader out of its blocking receive, for good.
void EmulatorConnection::StopReading() {
  stopReading_.Set();
  ShutdownSocket(socket_.Get());
}

void EmulatorConnection::EndLink() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    removed_ = true;
    FailOutstandingLocked();
  }
  queueSpace_.notify_all();
}

void EmulatorConnection::FailOutstandingLocked() {
  for (const auto& write : sentWrites_) write->Complete(false, nullptr, 0);
  for (const auto& read : pendingReads_) read->Complete(false, nullptr, 0);
  sentWrites_.clear();
  pendingReads_.clear();
}

}  // namespace ferrolt::platform::emulator
