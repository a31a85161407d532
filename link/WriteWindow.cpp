#include "link/WriteWindow.h"

#include <algorithm>

#include "link/Limits.h"

namespace ferrolt {

WriteWindow::WriteWindow(UsbLink& link, size_t capacity)
    : link_(link), capacity_(capacity < 1 ? 1 : capacity), refillBelow_(capacity_ / 2) {
  taken_.reserve(capacity_ * kBlockSize);
}

void WriteWindow::Start(const uint8_t* block, uint32_t length, int32_t tag) {
  length = std::min<uint32_t>(length, kBlockSize);
  if (unsent_ > 0 && length != takenLength_) SendTaken();
  takenLength_ = length;
  taken_.insert(taken_.end(), block, block + length);
  writes_.push_back({{}, tag, {}, false});
  ++unsent_;
  if (writes_.size() < capacity_) return;
  refilling_ = true;
  SendTaken();
}

void WriteWindow::SendTaken() {
  if (unsent_ == 0) return;
  std::vector<UsbLink::PendingWrite> started = link_.StartWrites(taken_.data(), unsent_, takenLength_);
  const auto deadline = std::chrono::steady_clock::now() + limits::kWriteWait;
  auto write = writes_.end() - static_cast<std::ptrdiff_t>(unsent_);
  for (UsbLink::PendingWrite& pending : started) {
    write->write = std::move(pending);
    write->deadline = deadline;
    write->sent = true;
    ++write;
  }
  taken_.clear();
  unsent_ = 0;
}

void WriteWindow::AwaitRefillRoom() {
  if (!refilling_ || writes_.size() <= refillBelow_ + 1) return;
  const InFlight& oldest = writes_.front();
  if (oldest.write.transfer == nullptr || oldest.write.transfer->IsComplete()) return;
  link_.WaitForWrite(writes_[writes_.size() - refillBelow_ - 1].write, oldest.deadline);
}

WriteWindow::Ended WriteWindow::AwaitOldest(ILogMessageCallBack* log) {
  SendTaken();
  AwaitRefillRoom();
  const InFlight& oldest = writes_.front();
  const auto behind = [this] {
    std::vector<UsbLink::PendingWrite> later;
    for (auto write = writes_.begin() + 1; write != writes_.end(); ++write) later.push_back(write->write);
    return later;
  };
  const Ended ended{oldest.tag, link_.AwaitWrite(oldest.write, oldest.deadline, log, behind)};
  writes_.pop_front();
  if (writes_.size() <= refillBelow_) refilling_ = false;
  return ended;
}

bool WriteWindow::Pending(int32_t tag) const {
  return std::any_of(writes_.begin(), writes_.end(), [tag](const InFlight& write) {
    return write.tag == tag &&
           (!write.sent || (write.write.transfer != nullptr && !write.write.transfer->IsComplete()));
  });
}

void WriteWindow::DropUnsent() {
  writes_.erase(writes_.end() - static_cast<std::ptrdiff_t>(unsent_), writes_.end());
  taken_.clear();
  unsent_ = 0;
  if (writes_.size() <= refillBelow_) refilling_ = false;
}

void WriteWindow::Drain() {
  DropUnsent();
  while (!Empty()) AwaitOldest(nullptr);
}

}  // namespace ferrolt
