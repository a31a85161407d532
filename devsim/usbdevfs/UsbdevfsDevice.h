// The device's end of an emulated USB device node: a umockdev ioctl handler
// that answers the usbdevfs ioctls libusb sends and moves bulk URBs in and out
// of a Device. OUT URBs wait in their endpoint's queue until the
// device takes their block (a device that NAKs has not taken it), then
// complete when the device reports the write completed; IN URBs complete, in
// order, each with one packet of the device's IN blocks. Claiming the vendor
// interface opens the device's host link, releasing it closes the link.
//
// umockdev calls the handler on its own worker thread; a thread of ours lets
// the device's time pass (replies that stream, delayed completions). Both
// work under one lock, and neither blocks: a URB the device has not finished
// with stays queued and the client reaps it later.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "devsim/Device.h"
#include "devsim/UsbFaults.h"

typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;

namespace ferrolt::devsim {

class UsbdevfsDevice {
 public:
  // packetSize: wMaxPacketSize of the bulk endpoints.
  UsbdevfsDevice(Device& device, uint8_t vendorInterface, uint16_t packetSize, const UsbFaults& faults);
  ~UsbdevfsDevice();
  UsbdevfsDevice(const UsbdevfsDevice&) = delete;
  UsbdevfsDevice& operator=(const UsbdevfsDevice&) = delete;

  UMockdevIoctlBase* Handler() const { return handler_; }

  // The cable is pulled: as the kernel does on a disconnect, URBs in flight
  // end with -ESHUTDOWN and every later ioctl on a handle opened so far fails
  // with ENODEV. Handles opened later fail as well until Plug.
  void Unplug();
  // The device is back: handles opened from now on reach it.
  void Plug();
  // Halt conditions the host has cleared on the OUT endpoint.
  int ClearedHalts() const;
  // Of those, the ones cleared while OUT URBs were still queued: a host fault
  // (libusb: cancel all pending transfers before clearing a halt), since the
  // queued blocks then reach the device before the block that stalled.
  int ClearedHaltsWithUrbsQueued() const;

  // What a test that plays the device's part does at a moment of its choice:
  // NAK every OUT block while held (the URBs stay queued), answer the next
  // OUT block with a STALL (the endpoint halts until the host clears it),
  // queue one IN block.
  void HoldOut(bool held);
  void HaltOut();
  void SendIn(const Block& block);

 private:
  struct Urb;
  using UrbQueue = std::deque<Urb>;

  static int OnIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* self);
  void HandleIoctl(UMockdevIoctlClient* client);
  void Capabilities(UMockdevIoctlClient* client, UMockdevIoctlData* arg);
  void Claim(UMockdevIoctlClient* client, UMockdevIoctlData* arg, size_t size);
  void Release(UMockdevIoctlClient* client, UMockdevIoctlData* arg);
  void Submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg);
  void Reap(UMockdevIoctlClient* client, UMockdevIoctlData* arg);
  void Discard(UMockdevIoctlClient* client, UMockdevIoctlData* arg);
  void ClearHalt(UMockdevIoctlClient* client, UMockdevIoctlData* arg);

  // The lock is held by the callers of everything below.
  bool CutOff(UMockdevIoctlClient* client);
  void CloseLink();
  void CutOffEveryHandle();
  void Finish(Urb urb, int status, int length);
  void Settle();
  void AdvanceOut();
  void AnswerIn();
  void LetTimePass();
  std::chrono::steady_clock::duration NextWait() const;

  Device& device_;
  const uint8_t vendorInterface_;
  const uint16_t packetSize_;
  const UsbFaults faults_;
  UMockdevIoctlBase* handler_ = nullptr;
  // Stored last by the constructor, loaded first by every ioctl. GLib hands
  // the handler to its worker thread with futexes ThreadSanitizer cannot see;
  // this makes the order in which the two threads meet the object visible.
  std::atomic<bool> published_{false};

  mutable std::mutex mutex_;  // guards everything below and the device
  std::condition_variable changed_;
  bool stopping_ = false;
  bool plugged_ = true;
  // Handles opened before the last unplug carry an older number and meet ENODEV.
  unsigned plugNumber_ = 1;
  UMockdevIoctlClient* linkOwner_ = nullptr;
  // OUT URBs whose block the device has not taken yet, in order.
  UrbQueue outQueue_;
  // OUT URBs the device took, awaiting its completion in order. An entry whose
  // URB the host discarded stays as an empty slot, so a late completion
  // still belongs to the write it was meant for.
  std::deque<std::optional<Urb>> awaitingCompletion_;
  UrbQueue awaitingData_;
  std::map<UMockdevIoctlClient*, UrbQueue> reapable_;
  long long outUrbs_ = 0;
  // The device answers OUT with STALL until the host clears the halt.
  bool outHalted_ = false;
  // After a STALL the host controller leaves the endpoint's queue stopped
  // until the halt is cleared (xHCI restarts the ring only then), or until
  // the interface is released and its endpoints reset.
  bool outQueueStopped_ = false;
  bool outHeld_ = false;
  int clearedHalts_ = 0;
  int clearedHaltsWithUrbsQueued_ = 0;
  bool zeroLengthOwed_ = false;

  std::thread clock_;  // last: it starts once everything it uses exists
};

}  // namespace ferrolt::devsim
