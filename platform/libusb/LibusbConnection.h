// One opened USB interface on libusb: the device handle, the claimed
// interface, its transfers in flight and the thread that completes them.
#pragma once

#include <libusb.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform/DeviceBackend.h"
#include "platform/Hint.h"
#include "platform/libusb/LibusbContext.h"

namespace ferrolt::platform {

// libusb delivers completions only while someone handles its events; the
// event thread does so in slices this long, checking for its stop in between.
inline constexpr std::chrono::milliseconds kLibusbEventSlice{100};
// How long closing, or clearing a halted endpoint, waits for cancelled
// transfers to come back before it goes on without them.
inline constexpr std::chrono::milliseconds kLibusbCancelWait{1000};

class LibusbConnection final : public DeviceConnection {
 public:
  // Takes over an open handle of the device whose interface is interfaceNumber;
  // a claim that fails is hinted to hints.
  LibusbConnection(std::shared_ptr<LibusbContext> context, libusb_device_handle* handle, uint8_t interfaceNumber,
                   HintSink& hints);
  ~LibusbConnection() override;
  LibusbConnection(const LibusbConnection&) = delete;
  LibusbConnection& operator=(const LibusbConnection&) = delete;

  bool Initialize() override;
  bool QueryInterfaceSettings(uint8_t& endpointCount) override;
  bool QueryPipe(uint8_t endpointIndex, PipeInfo& pipe) override;
  bool QueryDeviceSpeed(uint8_t& speed, uint32_t& error) override;
  std::shared_ptr<Transfer> StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) override;
  // Each read completes with one block. The IN pipe is read a whole packet at
  // a time (a device may pack several blocks into one); blocks beyond the
  // first wait here for the next reads.
  std::shared_ptr<Transfer> StartRead(uint8_t pipeId, uint32_t length) override;
  bool FlushPipe(uint8_t pipeId) override;
  bool Abort(Transfer& transfer) override;
  // The libusb transfers as submitted: their lengths, and every block a read brought.
  bool CaptureOwnTransfers(std::shared_ptr<capture::UsbCapture> capture) override;

 private:
  // A submitted libusb transfer and the buffer its bytes move through. A
  // write carries its caller's transfer; a read serves the waiting readers.
  struct InFlight {
    // Cleared when the connection gives the record up (see AbandonInFlight).
    std::atomic<LibusbConnection*> owner{nullptr};
    std::shared_ptr<Transfer> transfer;  // null for a read
    libusb_transfer* usb = nullptr;
    uint8_t endpoint = 0;
    uint64_t captureId = 0;
    // A read cancelled by a flush: what it brings goes with the flush.
    bool flushed = false;
    std::vector<uint8_t> buffer;
  };
  // An IN block received and not yet read; short when the device sent less.
  struct Block {
    std::array<uint8_t, kMaxTransferLength> data{};
    uint32_t count = 0;
  };
  static constexpr uint8_t kAllEndpoints = 0xFF;

  // The lock is held by the callers of the ...Locked members.
  bool SubmitLocked(uint8_t endpoint, const uint8_t* data, uint32_t length, std::shared_ptr<Transfer> transfer);
  static void LIBUSB_CALL OnTransferDone(libusb_transfer* usb);
  void Finish(InFlight* inFlight);
  void TakeReadLocked(const InFlight& read, libusb_transfer_status status, uint32_t count);
  void FailReadersLocked();
  size_t ReadsInFlightLocked(uint8_t endpoint) const;
  uint32_t ReadLengthLocked(uint8_t endpoint) const;
  // Before the next transfer on an endpoint that stalled: its transfers are
  // cancelled and awaited, then the halt is cleared. False when that failed.
  bool Recover(uint8_t endpoint);
  void CancelInFlightLocked(uint8_t endpoint);
  // True once no transfer is in flight.
  bool WaitForInFlight(std::chrono::milliseconds wait);
  void AbandonInFlight();
  void HandleEvents();
  // The endpoints of the interface's alternate setting 0, as pipes.
  bool ReadPipes(std::vector<PipeInfo>& pipes) const;

  const std::shared_ptr<LibusbContext> context_;
  libusb_device_handle* const handle_;
  const uint8_t interfaceNumber_;
  HintSink& hints_;
  std::atomic<bool> claimed_{false};
  std::atomic<bool> stopping_{false};

  std::mutex mutex_;  // guards everything below
  std::condition_variable drained_;
  std::map<InFlight*, std::unique_ptr<InFlight>> inFlight_;
  std::map<uint8_t, uint16_t> packetSizes_;  // by endpoint address
  std::set<uint8_t> halted_;
  std::deque<Block> received_;
  std::deque<std::shared_ptr<Transfer>> readers_;  // reads waiting for a block, oldest first
  std::shared_ptr<capture::UsbCapture> capture_;   // null unless traced
  bool closing_ = false;

  std::thread events_;  // last: it starts once everything it uses exists
};

}  // namespace ferrolt::platform
