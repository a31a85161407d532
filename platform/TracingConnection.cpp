#include "platform/TracingConnection.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace ferrolt::platform {

// The transfers started and not yet ended, with how the host has taken each
// back, which is what a failed end is recorded as. A few dozen at most (the
// link's window of writes and its queue of reads): a list searched from the
// front, with no allocation per transfer.
class TracingConnection::Outstanding final : public TransferObserver {
 public:
  explicit Outstanding(std::shared_ptr<capture::UsbCapture> capture) : capture_(std::move(capture)) {}

  void Add(const Transfer& transfer, uint64_t id, uint8_t endpoint) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back({&transfer, id, endpoint, capture::TransferEnd::Failed});
  }

  // Returns how a failed end of transfer was to be recorded before.
  capture::TransferEnd TakeBack(const Transfer& transfer, capture::TransferEnd how) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = Find(transfer);
    return found == entries_.end() ? how : std::exchange(found->ifFailed, how);
  }

  void TakeBackPipe(uint8_t endpoint, capture::TransferEnd how) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Entry& entry : entries_)
      if (entry.endpoint == endpoint) entry.ifFailed = how;
  }

  void TakeBackAll(capture::TransferEnd how) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Entry& entry : entries_) entry.ifFailed = how;
  }

  void TransferFinished(const Transfer& transfer, bool succeeded, const uint8_t* data, uint32_t count) override {
    Entry entry;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const auto found = Find(transfer);
      if (found == entries_.end()) return;
      entry = *found;
      *found = entries_.back();
      entries_.pop_back();
    }
    const bool in = (entry.endpoint & capture::kDirectionIn) != 0;
    capture_->Complete(entry.id, entry.endpoint, succeeded ? capture::TransferEnd::Done : entry.ifFailed,
                       in ? data : nullptr, count);
  }

 private:
  struct Entry {
    const Transfer* transfer = nullptr;
    uint64_t id = 0;
    uint8_t endpoint = 0;
    capture::TransferEnd ifFailed = capture::TransferEnd::Failed;
  };

  std::vector<Entry>::iterator Find(const Transfer& transfer) {
    return std::find_if(entries_.begin(), entries_.end(),
                        [&](const Entry& entry) { return entry.transfer == &transfer; });
  }

  const std::shared_ptr<capture::UsbCapture> capture_;
  std::mutex mutex_;
  std::vector<Entry> entries_;
};

TracingConnection::TracingConnection(std::unique_ptr<DeviceConnection> inner,
                                     std::shared_ptr<capture::UsbCapture> capture, const capture::UsbDeviceModel& model)
    : capture_(std::move(capture)),
      outstanding_(std::make_shared<Outstanding>(capture_)),
      model_(model),
      inner_(std::move(inner)) {}

TracingConnection::~TracingConnection() {
  outstanding_->TakeBackAll(capture::TransferEnd::Closed);
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
  const uint64_t id = capture_->Submit(pipeId, data, std::min(length, kMaxTransferLength));
  return Track(inner_->StartWrite(pipeId, data, length), id, pipeId);
}

std::shared_ptr<Transfer> TracingConnection::StartRead(uint8_t pipeId, uint32_t length) {
  RecordDescriptorsOnce();
  const uint64_t id = capture_->Submit(pipeId, nullptr, std::min(length, kMaxTransferLength));
  return Track(inner_->StartRead(pipeId, length), id, pipeId);
}

bool TracingConnection::FlushPipe(uint8_t pipeId) {
  outstanding_->TakeBackPipe(pipeId, capture::TransferEnd::Withdrawn);
  return inner_->FlushPipe(pipeId);
}

// Marked before the backend is asked, since the end may come at once; a
// backend that cannot withdraw leaves the transfer as it was.
bool TracingConnection::Abort(Transfer& transfer) {
  const capture::TransferEnd before = outstanding_->TakeBack(transfer, capture::TransferEnd::Withdrawn);
  if (inner_->Abort(transfer)) return true;
  outstanding_->TakeBack(transfer, before);
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
  // Known before it is watched: it may end at once, even before Observe.
  outstanding_->Add(*transfer, id, pipeId);
  transfer->Observe(outstanding_);
  return transfer;
}

}  // namespace ferrolt::platform
