#include "platform/TracingConnection.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <utility>
#include <vector>

namespace ferrolt::platform {

// How each transfer's end is recorded. A done transfer is recorded so at
// once; a failed one as the host took it back, if it did. Nothing is looked
// up for a transfer that ends well: a flush marks the transfers of its pipe
// by the capture's last id (ids only grow), and only transfers aborted one
// by one are listed, until their end (one whose end had passed already
// stays listed, which costs its pipe's later ends a look, never a wrong end).
class TracingConnection::Ends final : public TransferObserver {
 public:
  explicit Ends(std::shared_ptr<capture::UsbCapture> capture) : capture_(std::move(capture)) {}

  void Withdraw(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    aborted_.push_back(id);
    anyAborted_ = true;
  }

  // An abort the backend could not make.
  void Unwithdraw(uint64_t id) { Taken(id); }

  void WithdrawPipe(uint8_t endpoint) { FlushedThrough(endpoint) = capture_->LastId(); }

  void CloseAll() { closed_ = true; }

  void TransferFinished(TransferTag tag, bool succeeded, const uint8_t* data, uint32_t count) override {
    const bool aborted = anyAborted_.load(std::memory_order_relaxed) && Taken(tag.id);
    const bool in = (tag.endpoint & capture::kDirectionIn) != 0;
    capture_->Complete(tag.id, tag.endpoint, succeeded ? capture::TransferEnd::Done : FailedEnd(tag, aborted),
                       in ? data : nullptr, count);
  }

 private:
  // Endpoint numbers 0-15 each way.
  static constexpr size_t kEndpointSlots = 32;

  capture::TransferEnd FailedEnd(TransferTag tag, bool aborted) {
    if (closed_) return capture::TransferEnd::Closed;
    if (aborted || tag.id <= FlushedThrough(tag.endpoint).load()) return capture::TransferEnd::Withdrawn;
    return capture::TransferEnd::Failed;
  }

  std::atomic<uint64_t>& FlushedThrough(uint8_t endpoint) {
    const size_t in = (endpoint & capture::kDirectionIn) != 0 ? kEndpointSlots / 2 : 0;
    return flushedThrough_[in + (endpoint & (kEndpointSlots / 2 - 1))];
  }

  // Whether id was listed as aborted; it is not from now on.
  bool Taken(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find(aborted_.begin(), aborted_.end(), id);
    if (found == aborted_.end()) return false;
    *found = aborted_.back();
    aborted_.pop_back();
    anyAborted_ = !aborted_.empty();
    return true;
  }

  const std::shared_ptr<capture::UsbCapture> capture_;
  std::array<std::atomic<uint64_t>, kEndpointSlots> flushedThrough_{};
  std::atomic<bool> closed_{false};
  std::atomic<bool> anyAborted_{false};
  std::mutex mutex_;  // guards aborted_
  std::vector<uint64_t> aborted_;
};

TracingConnection::TracingConnection(std::unique_ptr<DeviceConnection> inner,
                                     std::shared_ptr<capture::UsbCapture> capture, const capture::UsbDeviceModel& model)
    : capture_(std::move(capture)),
      ends_(std::make_shared<Ends>(capture_)),
      model_(model),
      inner_(std::move(inner)),
      innerRecords_(inner_->CaptureOwnTransfers(capture_)) {}

TracingConnection::~TracingConnection() {
  ends_->CloseAll();
  inner_.reset();
}

bool TracingConnection::Initialize() { return inner_->Initialize(); }

bool TracingConnection::QueryInterfaceSettings(uint8_t& endpointCount) {
  return inner_->QueryInterfaceSettings(endpointCount);
}

bool TracingConnection::QueryPipe(uint8_t endpointIndex, PipeInfo& pipe) {
  if (!inner_->QueryPipe(endpointIndex, pipe)) return false;
  if (pipe.type != PipeType::Bulk) return true;
  std::lock_guard<std::mutex> lock(modelMutex_);
  if ((pipe.pipeId & capture::kDirectionIn) != 0)
    model_.bulkInEndpoint = pipe.pipeId;
  else
    model_.bulkOutEndpoint = pipe.pipeId;
  return true;
}

bool TracingConnection::QueryDeviceSpeed(uint8_t& speed, uint32_t& error) {
  if (!inner_->QueryDeviceSpeed(speed, error)) return false;
  // The query reports full and low speed alike; bulk endpoints mean full.
  std::lock_guard<std::mutex> lock(modelMutex_);
  model_.speed = speed == kSpeedHigh ? capture::UsbSpeed::High : capture::UsbSpeed::Full;
  return true;
}

std::shared_ptr<Transfer> TracingConnection::StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) {
  RecordDescriptorsOnce();
  if (innerRecords_) return inner_->StartWrite(pipeId, data, length);
  const uint64_t id = capture_->Submit(pipeId, data, std::min(length, kMaxTransferLength));
  return Track(inner_->StartWrite(pipeId, data, length), id, pipeId);
}

std::vector<std::shared_ptr<Transfer>> TracingConnection::StartWrites(uint8_t pipeId, const uint8_t* blocks,
                                                                      size_t count, uint32_t length) {
  RecordDescriptorsOnce();
  if (innerRecords_) return inner_->StartWrites(pipeId, blocks, count, length);
  const uint32_t recorded = std::min(length, kMaxTransferLength);
  std::vector<uint64_t> ids;
  for (size_t i = 0; i < count; ++i) ids.push_back(capture_->Submit(pipeId, blocks + i * length, recorded));
  std::vector<std::shared_ptr<Transfer>> transfers = inner_->StartWrites(pipeId, blocks, count, length);
  for (size_t i = 0; i < count; ++i) transfers[i] = Track(std::move(transfers[i]), ids[i], pipeId);
  return transfers;
}

std::shared_ptr<Transfer> TracingConnection::StartRead(uint8_t pipeId, uint32_t length) {
  RecordDescriptorsOnce();
  if (innerRecords_) return inner_->StartRead(pipeId, length);
  const uint64_t id = capture_->Submit(pipeId, nullptr, std::min(length, kMaxTransferLength));
  return Track(inner_->StartRead(pipeId, length), id, pipeId);
}

bool TracingConnection::FlushPipe(uint8_t pipeId) {
  ends_->WithdrawPipe(pipeId);
  return inner_->FlushPipe(pipeId);
}

// Marked before the backend is asked, since the end may come at once; a
// backend that cannot withdraw leaves the transfer as it was.
bool TracingConnection::Abort(Transfer& transfer) {
  if (innerRecords_) return inner_->Abort(transfer);
  const uint64_t id = transfer.Tag().id;
  ends_->Withdraw(id);
  if (inner_->Abort(transfer)) return true;
  ends_->Unwithdraw(id);
  return false;
}

void TracingConnection::RecordDescriptorsOnce() {
  std::call_once(descriptorsRecorded_, [this] {
    std::lock_guard<std::mutex> lock(modelMutex_);
    capture_->RecordDescriptors(model_);
  });
}

std::shared_ptr<Transfer> TracingConnection::Track(std::shared_ptr<Transfer> transfer, uint64_t id, uint8_t pipeId) {
  if (transfer == nullptr) {
    capture_->Refuse(id, pipeId);
    return nullptr;
  }
  transfer->Observe(ends_, {id, pipeId});
  return transfer;
}

}  // namespace ferrolt::platform
