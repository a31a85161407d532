// One bulk transfer started on a pipe. A backend completes it from whatever
// thread its I/O finishes on; the link layer waits on Completion(). The object
// is shared: it stays valid for whoever still holds it, so a transfer that
// outlives the wait that started it never writes into freed memory.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/Event.h"

namespace ferrolt::platform {

inline constexpr uint32_t kMaxTransferLength = 64;

// What an observer knows a transfer by: the id it gave it and its endpoint.
struct TransferTag {
  uint64_t id = 0;
  uint8_t endpoint = 0;
};

// Told once that a transfer has finished, with its result: for those that
// record transfers (FERROLT_TRACE) without a thread of their own. Runs on the
// thread that finishes the transfer, before Completion() is set, so its
// waiter sees the transfer done only after it has been told.
class TransferObserver {
 public:
  virtual ~TransferObserver() = default;
  // data holds count bytes for a read; for a write, count is what it moved.
  virtual void TransferFinished(TransferTag tag, bool succeeded, const uint8_t* data, uint32_t count) = 0;
};

class Transfer {
 public:
  explicit Transfer(uint32_t length) : length_(length < kMaxTransferLength ? length : kMaxTransferLength) {}
  virtual ~Transfer() = default;
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  uint32_t RequestedLength() const { return length_; }

  // Set once the transfer has finished, successfully or not.
  Event& Completion() { return completion_; }
  bool IsComplete() const { return completion_.IsSet(); }

  // Valid once complete; before that they report a transfer with no bytes.
  bool Succeeded();
  // The bytes the transfer moved, whether or not it succeeded: a read that
  // was cancelled or failed may still have brought a whole block.
  uint32_t BytesTransferred();
  // Copies the received bytes (at most RequestedLength()) into out; returns the count.
  uint32_t CopyData(uint8_t* out, uint32_t capacity);

  // Backends: finish the transfer. Data is copied for reads, and kept when
  // the transfer failed too; a write passes null and the count it moved.
  // Completing twice keeps the first result.
  void Complete(bool succeeded, const uint8_t* data, uint32_t count);

  // The one observer of this transfer, which knows it by tag. Told at once,
  // on the caller's thread, when the transfer has finished already.
  void Observe(std::shared_ptr<TransferObserver> observer, TransferTag tag);
  // The tag given to Observe; a default one before.
  TransferTag Tag() const;

 protected:
  // For a transfer that the system finishes by setting Completion() itself
  // (Windows overlapped I/O): called once the event is set and before a
  // result is read, to fetch the result and pass it to Complete(). A backend
  // that calls Complete() itself has nothing to fetch.
  virtual void Collect() {}

 private:
  void CollectIfFinished();

  const uint32_t length_;
  mutable std::mutex mutex_;
  bool done_ = false;
  bool succeeded_ = false;
  uint32_t count_ = 0;
  std::array<uint8_t, kMaxTransferLength> data_{};
  std::shared_ptr<TransferObserver> observer_;
  TransferTag tag_;
  Event completion_;
};

}  // namespace ferrolt::platform
