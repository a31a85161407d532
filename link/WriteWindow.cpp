#include "link/WriteWindow.h"

#include <algorithm>
#include <vector>

#include "link/Limits.h"

namespace ferrolt {

WriteWindow::WriteWindow(UsbLink& link, size_t capacity) : link_(link), capacity_(capacity < 1 ? 1 : capacity) {}

void WriteWindow::Start(const uint8_t* block, uint32_t length, int32_t tag) {
  const auto started = std::chrono::steady_clock::now();
  writes_.push_back({link_.StartWrite(block, length), tag, started + limits::kWriteWait});
}

WriteWindow::Ended WriteWindow::AwaitOldest(ILogMessageCallBack* log) {
  const InFlight& oldest = writes_.front();
  const auto behind = [this] {
    std::vector<UsbLink::PendingWrite> later;
    for (auto write = writes_.begin() + 1; write != writes_.end(); ++write) later.push_back(write->write);
    return later;
  };
  const Ended ended{oldest.tag, link_.AwaitWrite(oldest.write, oldest.deadline, log, behind)};
  writes_.pop_front();
  return ended;
}

bool WriteWindow::Pending(int32_t tag) const {
  return std::any_of(writes_.begin(), writes_.end(), [tag](const InFlight& write) {
    return write.tag == tag && write.write.transfer != nullptr && !write.write.transfer->IsComplete();
  });
}

void WriteWindow::Drain() {
  while (!Empty()) AwaitOldest(nullptr);
}

}  // namespace ferrolt
