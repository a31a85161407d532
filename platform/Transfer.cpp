#include "platform/Transfer.h"

#include <algorithm>
#include <cstring>

namespace ferrolt::platform {

bool Transfer::Succeeded() {
  CollectIfFinished();
  std::lock_guard<std::mutex> lock(mutex_);
  return done_ && succeeded_;
}

uint32_t Transfer::BytesTransferred() {
  CollectIfFinished();
  std::lock_guard<std::mutex> lock(mutex_);
  return done_ ? count_ : 0;
}

uint32_t Transfer::CopyData(uint8_t* out, uint32_t capacity) {
  CollectIfFinished();
  std::lock_guard<std::mutex> lock(mutex_);
  if (!done_) return 0;
  const uint32_t count = std::min({count_, capacity, length_});
  std::memcpy(out, data_.data(), count);
  return count;
}

void Transfer::CollectIfFinished() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (done_) return;
  }
  if (completion_.IsSet()) Collect();
}

void Transfer::Complete(bool succeeded, const uint8_t* data, uint32_t count) {
  std::shared_ptr<TransferObserver> observer;
  TransferTag tag;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (done_) return;
    done_ = true;
    succeeded_ = succeeded;
    count_ = std::min(count, length_);
    if (data != nullptr) std::memcpy(data_.data(), data, count_);
    observer = std::move(observer_);
    tag = tag_;
  }
  // The result is fixed once done_ is set: read without the lock.
  if (observer) observer->TransferFinished(tag, succeeded_, data_.data(), count_);
  completion_.Set();
}

void Transfer::Observe(std::shared_ptr<TransferObserver> observer, TransferTag tag) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    tag_ = tag;
    if (!done_) {
      observer_ = std::move(observer);
      return;
    }
  }
  observer->TransferFinished(tag, succeeded_, data_.data(), count_);
}

TransferTag Transfer::Tag() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return tag_;
}

}  // namespace ferrolt::platform
