// One opened USB interface on libusb: the device handle, the claimed
// interface, its transfers in flight and the thread that completes them.
#pragma once

#include <libusb.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/DeviceBackend.h"
#include "platform/libusb/LibusbContext.h"

namespace ferrolt::platform {

// libusb delivers completions only while someone handles its events; the
// event thread does so in slices this long, checking for its stop in between.
inline constexpr std::chrono::milliseconds kLibusbEventSlice{100};
// How long closing waits for cancelled transfers to come back before their
// buffers may go.
inline constexpr std::chrono::milliseconds kLibusbCancelWait{1000};

class LibusbConnection final : public DeviceConnection {
 public:
  // Takes over an open handle of the device whose interface is interfaceNumber.
  LibusbConnection(std::shared_ptr<LibusbContext> context, libusb_device_handle* handle, uint8_t interfaceNumber);
  ~LibusbConnection() override;
  LibusbConnection(const LibusbConnection&) = delete;
  LibusbConnection& operator=(const LibusbConnection&) = delete;

  bool Initialize() override;
  bool QueryInterfaceSettings(uint8_t& endpointCount) override;
  bool QueryPipe(uint8_t endpointIndex, PipeInfo& pipe) override;
  bool QueryDeviceSpeed(uint8_t& speed, uint32_t& error) override;
  std::shared_ptr<Transfer> StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) override;
  std::shared_ptr<Transfer> StartRead(uint8_t pipeId, uint32_t length) override;
  bool FlushPipe(uint8_t pipeId) override;

 private:
  // A submitted transfer and the buffer libusb moves its bytes through.
  struct InFlight {
    // Cleared when the connection gives the record up (see AbandonInFlight).
    std::atomic<LibusbConnection*> owner{nullptr};
    std::shared_ptr<Transfer> transfer;
    libusb_transfer* usb = nullptr;
    uint8_t endpoint = 0;
    std::array<uint8_t, kMaxTransferLength> buffer{};
  };
  static constexpr uint8_t kAllEndpoints = 0xFF;

  std::shared_ptr<Transfer> Submit(uint8_t endpoint, const uint8_t* data, uint32_t length);
  static void LIBUSB_CALL OnTransferDone(libusb_transfer* usb);
  void Finish(InFlight* inFlight);
  void CancelInFlight(uint8_t endpoint);
  void WaitForInFlight(std::chrono::milliseconds wait);
  void AbandonInFlight();
  void HandleEvents();
  // The endpoints of the interface's alternate setting 0, as pipes.
  bool ReadPipes(std::vector<PipeInfo>& pipes) const;

  const std::shared_ptr<LibusbContext> context_;
  libusb_device_handle* const handle_;
  const uint8_t interfaceNumber_;
  std::atomic<bool> claimed_{false};
  std::atomic<bool> stopping_{false};

  std::mutex mutex_;  // guards inFlight_
  std::condition_variable drained_;
  std::map<InFlight*, std::unique_ptr<InFlight>> inFlight_;

  std::thread events_;  // last: it starts once everything it uses exists
};

}  // namespace ferrolt::platform
