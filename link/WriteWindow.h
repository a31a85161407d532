// Several writes in flight on the bulk OUT pipe, up to a fixed number. The
// pipe moves them in order and exactly once, so they end in the order they
// were started; each is still bounded by the link's write wait, counted from
// its own start, and one whose wait ran out is withdrawn as WritePacket
// withdraws it.
//
// Writes go out in batches and the window is refilled in batches: once it is
// full it takes no new write until half of it has ended. Each hand-over to
// the system and each wake-up of the waiting thread then serves many writes,
// not one, and the other half keeps the pipe busy meanwhile.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "link/Callbacks.h"
#include "link/DevicePacket.h"
#include "link/UsbLink.h"

namespace ferrolt {

class WriteWindow {
 public:
  // How one write ended; tag is what its caller started it with.
  struct Ended {
    int32_t tag = 0;
    TransferStatus status = TransferStatus::Done;
  };

  WriteWindow(UsbLink& link, size_t capacity);
  WriteWindow(const WriteWindow&) = delete;
  WriteWindow& operator=(const WriteWindow&) = delete;

  // True while the window takes no new write: it is full, or has been and
  // has not yet drained to half of its capacity.
  bool Full() const { return writes_.size() >= capacity_ || (refilling_ && writes_.size() > refillBelow_); }
  bool Empty() const { return writes_.empty(); }
  // True while a write started with tag is in the window and has not
  // completed: the device cannot have taken its block yet.
  bool Pending(int32_t tag) const;

  // Takes a write of one block (length at most a block) and returns at once;
  // the window must not be full. It goes out with the writes taken after
  // it, once the window is full or at the next wait, whichever comes first.
  void Start(const uint8_t* block, uint32_t length, int32_t tag);
  // Waits for the oldest write to end and takes it out of the window; log
  // gets the line WritePacket logs for its status. The window must not be
  // empty.
  Ended AwaitOldest(ILogMessageCallBack* log);
  // At a stop: writes not yet gone out never go, and every write in flight
  // ends, oldest first, without a log line.
  void Drain();

 private:
  struct InFlight {
    UsbLink::PendingWrite write;
    int32_t tag = 0;
    std::chrono::steady_clock::time_point deadline;
    bool sent = false;
  };

  // Sends the writes taken and not yet gone out, in one hand-over.
  void SendTaken();
  // Forgets the writes taken and not yet gone out, as if never taken.
  void DropUnsent();
  // Before the oldest is awaited on a window that is refilling: one wait for
  // as many writes as bring the window down to half, bounded by the oldest's
  // own deadline.
  void AwaitRefillRoom();

  UsbLink& link_;
  const size_t capacity_;
  const size_t refillBelow_;
  bool refilling_ = false;
  std::deque<InFlight> writes_;
  // The blocks of the writes not yet gone out, end to end, and their length.
  std::vector<uint8_t> taken_;
  uint32_t takenLength_ = kBlockSize;
  size_t unsent_ = 0;
};

}  // namespace ferrolt
