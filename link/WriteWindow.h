// Several writes in flight on the bulk OUT pipe, up to a fixed number. The
// pipe moves them in order and exactly once, so they end in the order they
// were started; each is still bounded by the link's write wait, counted from
// its own start, and one whose wait ran out is withdrawn as WritePacket
// withdraws it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "link/Callbacks.h"
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

  bool Full() const { return writes_.size() >= capacity_; }
  bool Empty() const { return writes_.empty(); }
  // True while a write started with tag is in the window and has not
  // completed: the device cannot have taken its block yet.
  bool Pending(int32_t tag) const;

  // Starts a write and returns at once; the window must not be full.
  void Start(const uint8_t* block, uint32_t length, int32_t tag);
  // Waits for the oldest write to end and takes it out of the window; log
  // gets the line WritePacket logs for its status. The window must not be
  // empty.
  Ended AwaitOldest(ILogMessageCallBack* log);
  // Ends every write in flight, oldest first, without a log line: past a
  // refused block (the device drops them) and at a stop.
  void Drain();

 private:
  struct InFlight {
    UsbLink::PendingWrite write;
    int32_t tag = 0;
    std::chrono::steady_clock::time_point deadline;
  };

  UsbLink& link_;
  const size_t capacity_;
  std::deque<InFlight> writes_;
};

}  // namespace ferrolt
