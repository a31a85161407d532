// The open USB link: discovery, opening and closing, and single-block
// transfers with their waits. Written once, portably, over the platform
// interface.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "link/Callbacks.h"
#include "link/ConsoleSink.h"
#include "platform/DeviceBackend.h"
#include "platform/Event.h"

namespace ferrolt {

enum class OpenStatus : int {
  Opened = 0,
  NotFound = 1,
  FileOpenFailed = 2,
  DriverInitFailed = 3,
  PipeQueryFailed = 4,
};

enum class TransferStatus : int {
  Done = 0,
  TimedOut = 1,
  Cancelled = 2,
  Failed = 3,
};

inline constexpr size_t kDevicePathSize = 260;
// HRESULT-style results of FindDevicePath.
inline constexpr int32_t kFound = 0;
inline constexpr int32_t kHresultOutOfMemory = static_cast<int32_t>(0x8007000E);
int32_t HresultFromWin32(uint32_t error);

class UsbLink {
 public:
  // cancelEvent is the operation runner's; every waited transfer lists it
  // first. console takes the link's console lines. The references must
  // outlive the link.
  UsbLink(platform::DeviceBackend& backend, platform::Event& cancelEvent, ConsoleSink& console = StandardConsole());
  ~UsbLink();
  UsbLink(const UsbLink&) = delete;
  UsbLink& operator=(const UsbLink&) = delete;

  // Opens the link; on failure logs why (when log is given). Note the order:
  // product id first.
  bool ConnectDevice(int productId, int vendorId, ILogMessageCallBack* log);
  OpenStatus OpenDevice(int productId, int vendorId);
  // Finds the interface path of the device's vendor interface into
  // devicePath (lower-cased). 0 when found, a negative HRESULT otherwise.
  int32_t FindDevicePath(int productId, int vendorId, char* devicePath, size_t size, int* notFound);
  bool QueryPipes();
  // Safe on a closed link. Aborts outstanding transfers.
  void CloseDevice();

  // 500 ms write to the bulk OUT pipe.
  TransferStatus WritePacket(const uint8_t* block, uint32_t length, ILogMessageCallBack* log);
  // A write started on the bulk OUT pipe and not yet awaited: its transfer
  // (null when it failed at once) and the connection it went out on.
  struct PendingWrite {
    std::shared_ptr<platform::Transfer> transfer;
    std::weak_ptr<platform::DeviceConnection> startedOn;
  };
  // The two halves of WritePacket, for callers that keep several writes in
  // flight: StartWrite returns at once; AwaitWrite waits for the write until
  // deadline or the cancel event, withdraws one whose wait ran out, and logs
  // as WritePacket does. queuedBehind, asked only once the wait has run out,
  // names the writes started after it and still in flight: they are
  // withdrawn first, newest first, so that none of them goes out once it is
  // gone.
  using QueuedBehind = std::function<std::vector<PendingWrite>()>;
  PendingWrite StartWrite(const uint8_t* block, uint32_t length);
  // count writes of length bytes each, from blocks laid end to end, started
  // together and in order.
  std::vector<PendingWrite> StartWrites(const uint8_t* blocks, size_t count, uint32_t length);
  // Waits until the write has ended, the cancel event is set or deadline
  // has passed, whichever comes first; nothing is logged or withdrawn.
  void WaitForWrite(const PendingWrite& write, std::chrono::steady_clock::time_point deadline);
  TransferStatus AwaitWrite(const PendingWrite& write, std::chrono::steady_clock::time_point deadline,
                            ILogMessageCallBack* log, const QueuedBehind& queuedBehind = nullptr);
  // 5 ms read from the bulk IN pipe; bytesReceived gets the count.
  TransferStatus ReadPacket(uint8_t* buffer, uint32_t length, ILogMessageCallBack* log, uint32_t* bytesReceived);
  // Read without the cancel event: 0 when a block arrived, 1 when the read
  // failed or nothing came within limits::kBlockingReadWait.
  int ReadPacketBlocking(uint8_t* buffer, uint32_t length, ILogMessageCallBack* log);
  // The same read with its status: Done, TimedOut when the device sent
  // nothing in time, Failed when the read could not be made (the link or the
  // device is gone).
  TransferStatus ReadPacketWithStatus(uint8_t* buffer, uint32_t length);
  // Reads and drops the blocks that have already arrived, without waiting
  // for more; how many it dropped.
  int DropArrivedBlocks();
  // Discards leftover IN blocks, then flushes the OUT pipe.
  void FlushPipes();
  // A new operation: its first open drops what the device still had queued
  // for the host from before. Opens after that (reconnects within the
  // operation) keep everything, since the device may be answering a block
  // that went out before.
  void DrainAtNextOpen();

  bool IsOpen() const;
  ConsoleSink& Console() const { return console_; }
  uint8_t BulkInPipeId() const;
  uint8_t BulkOutPipeId() const;
  // The last interface path examined, lower-cased.
  std::string DevicePathText() const;

 private:
  enum class ReadWait { WithCancel, WithoutCancel };
  // One block from the bulk IN pipe. Up to limits::kReadsQueued IN reads
  // stay queued, so the device never waits for the host to ask for its next
  // block; each call takes the oldest. A read whose wait ran out stays queued
  // and the next call waits on it again, so no block the device sent is lost
  // or handled twice.
  TransferStatus ReadBlock(uint8_t* buffer, uint32_t length, std::chrono::milliseconds wait, ReadWait kind,
                           uint32_t* bytesReceived);
  // The oldest queued IN read, after topping the queue up on the open link;
  // null when none is queued and the link is closed.
  std::shared_ptr<platform::Transfer> OldestRead(uint32_t length);
  void ForgetOldestRead(const std::shared_ptr<platform::Transfer>& transfer);
  bool WithdrawWrite(const PendingWrite& write, const std::vector<PendingWrite>& queuedBehind);
  // True for a finished read that brought a whole block.
  static bool HoldsBlock(platform::Transfer& read);
  // Reads and drops what the device queued for an earlier link.
  void DrainStaleBlocks();
  std::shared_ptr<platform::DeviceConnection> Connection() const;
  // The second search, over the paths the backend found registered for the
  // vendor interface; fills devicePath only with a match.
  bool FindRegisteredPath(int productId, int vendorId, char* devicePath, size_t size);

  platform::DeviceBackend& backend_;
  platform::Event& cancelEvent_;
  ConsoleSink& console_;

  mutable std::mutex mutex_;  // guards every field below
  bool DeviceOpen = false;
  std::shared_ptr<platform::DeviceConnection> WinUsbHandle;
  uint8_t BulkInPipe = 0;
  uint8_t BulkOutPipe = 0;
  char DevicePath[kDevicePathSize] = {};
  // Oldest first; the backends complete reads on a pipe in the order started.
  std::deque<std::shared_ptr<platform::Transfer>> queuedReads_;
  bool drainAtOpen_ = true;
  // Serialises IN reads so the queue is taken from by one reader at a time.
  std::mutex readMutex_;
};

}  // namespace ferrolt
