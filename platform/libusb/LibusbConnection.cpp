#include "platform/libusb/LibusbConnection.h"

#include <cstring>

#include "platform/libusb/ConfigDescriptor.h"
#include "platform/libusb/SetupHints.h"

namespace ferrolt::platform {
namespace {

constexpr uint8_t kEndpointDirectionIn = LIBUSB_ENDPOINT_IN;
constexpr uint8_t kTransferTypeMask = LIBUSB_TRANSFER_TYPE_MASK;
// wMaxPacketSize carries the size in its low 11 bits; the rest count extra
// transactions per microframe.
constexpr uint16_t kPacketSizeMask = 0x07FF;
// The link waits for transfers itself; libusb keeps them until done or cancelled.
constexpr unsigned kNoTransferTimeout = 0;
constexpr long kMicrosecondsPerMillisecond = 1000;

PipeType PipeTypeOf(uint8_t attributes) {
  switch (attributes & kTransferTypeMask) {
    case LIBUSB_TRANSFER_TYPE_ISOCHRONOUS:
      return PipeType::Isochronous;
    case LIBUSB_TRANSFER_TYPE_BULK:
      return PipeType::Bulk;
    case LIBUSB_TRANSFER_TYPE_INTERRUPT:
      return PipeType::Interrupt;
    default:
      return PipeType::Control;
  }
}

bool IsInEndpoint(uint8_t endpoint) { return (endpoint & kEndpointDirectionIn) != 0; }

}  // namespace

LibusbConnection::LibusbConnection(std::shared_ptr<LibusbContext> context, libusb_device_handle* handle,
                                   uint8_t interfaceNumber)
    : context_(std::move(context)),
      handle_(handle),
      interfaceNumber_(interfaceNumber),
      events_([this] { HandleEvents(); }) {}

LibusbConnection::~LibusbConnection() {
  CancelInFlight(kAllEndpoints);
  WaitForInFlight(kLibusbCancelWait);
  if (claimed_) libusb_release_interface(handle_, interfaceNumber_);
  stopping_ = true;
  events_.join();
  AbandonInFlight();
  libusb_close(handle_);
}

bool LibusbConnection::Initialize() {
  // Where a kernel driver holds the interface, libusb lets go of it on claim
  // and gives it back on release. Systems without kernel drivers refuse the
  // option, which is harmless.
  libusb_set_auto_detach_kernel_driver(handle_, 1);
  const int claimed = libusb_claim_interface(handle_, interfaceNumber_);
  if (claimed != LIBUSB_SUCCESS) {
    HintClaimFailure(libusb_get_device(handle_), interfaceNumber_, claimed);
    return false;
  }
  claimed_ = true;
  return true;
}

bool LibusbConnection::ReadPipes(std::vector<PipeInfo>& pipes) const {
  const ConfigDescriptorPtr config = ReadConfigDescriptor(libusb_get_device(handle_));
  if (config == nullptr) return false;
  const libusb_interface_descriptor* setting = FindInterfaceSetting(*config, interfaceNumber_);
  if (setting == nullptr) return false;
  pipes.clear();
  for (int i = 0; i < setting->bNumEndpoints; ++i) {
    const libusb_endpoint_descriptor& endpoint = setting->endpoint[i];
    pipes.push_back({PipeTypeOf(endpoint.bmAttributes), endpoint.bEndpointAddress,
                     static_cast<uint16_t>(endpoint.wMaxPacketSize & kPacketSizeMask)});
  }
  return true;
}

bool LibusbConnection::QueryInterfaceSettings(uint8_t& endpointCount) {
  std::vector<PipeInfo> pipes;
  if (!ReadPipes(pipes)) return false;
  endpointCount = static_cast<uint8_t>(pipes.size());
  return true;
}

bool LibusbConnection::QueryPipe(uint8_t endpointIndex, PipeInfo& pipe) {
  std::vector<PipeInfo> pipes;
  if (!ReadPipes(pipes) || endpointIndex >= pipes.size()) return false;
  pipe = pipes[endpointIndex];
  return true;
}

bool LibusbConnection::QueryDeviceSpeed(uint8_t& speed, uint32_t& error) {
  switch (libusb_get_device_speed(libusb_get_device(handle_))) {
    case LIBUSB_SPEED_LOW:
      speed = kSpeedLow;
      return true;
    case LIBUSB_SPEED_FULL:
      speed = kSpeedFull;
      return true;
    case LIBUSB_SPEED_UNKNOWN:
      error = kErrorGenFailure;
      return false;
    default:
      // The Windows query knows no speed above high: faster devices report high.
      speed = kSpeedHigh;
      return true;
  }
}

std::shared_ptr<Transfer> LibusbConnection::StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) {
  if (IsInEndpoint(pipeId)) return nullptr;
  return Submit(pipeId, data, length);
}

std::shared_ptr<Transfer> LibusbConnection::StartRead(uint8_t pipeId, uint32_t length) {
  if (!IsInEndpoint(pipeId)) return nullptr;
  return Submit(pipeId, nullptr, length);
}

bool LibusbConnection::FlushPipe(uint8_t pipeId) {
  CancelInFlight(pipeId);
  return true;
}

std::shared_ptr<Transfer> LibusbConnection::Submit(uint8_t endpoint, const uint8_t* data, uint32_t length) {
  auto transfer = std::make_shared<Transfer>(length);
  auto inFlight = std::make_unique<InFlight>();
  inFlight->owner = this;
  inFlight->transfer = transfer;
  inFlight->endpoint = endpoint;
  if (data != nullptr) std::memcpy(inFlight->buffer.data(), data, transfer->RequestedLength());
  inFlight->usb = libusb_alloc_transfer(0);
  if (inFlight->usb == nullptr) return nullptr;
  libusb_fill_bulk_transfer(inFlight->usb, handle_, endpoint, inFlight->buffer.data(),
                            static_cast<int>(transfer->RequestedLength()), &LibusbConnection::OnTransferDone,
                            inFlight.get(), kNoTransferTimeout);

  // Held through the submission, so the completion finds its record.
  std::lock_guard<std::mutex> lock(mutex_);
  if (libusb_submit_transfer(inFlight->usb) != LIBUSB_SUCCESS) {
    libusb_free_transfer(inFlight->usb);
    return nullptr;
  }
  InFlight* key = inFlight.get();
  inFlight_.emplace(key, std::move(inFlight));
  return transfer;
}

void LIBUSB_CALL LibusbConnection::OnTransferDone(libusb_transfer* usb) {
  auto* inFlight = static_cast<InFlight*>(usb->user_data);
  if (LibusbConnection* owner = inFlight->owner.load(); owner != nullptr) {
    owner->Finish(inFlight);
    return;
  }
  libusb_free_transfer(usb);
  delete inFlight;
}

// Runs on the event thread.
void LibusbConnection::Finish(InFlight* inFlight) {
  std::unique_ptr<InFlight> record;
  {
    // Out of the table before its transfer is freed: a cancel (a flush, or
    // closing) only touches the transfers the table holds.
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = inFlight_.find(inFlight);
    record = std::move(found->second);
    inFlight_.erase(found);
  }
  libusb_transfer* usb = record->usb;
  // A stalled endpoint stays halted until the host clears it; cleared here,
  // before the caller learns of the failure, the pipe is usable again for
  // the retry every caller makes after a failed transfer.
  if (usb->status == LIBUSB_TRANSFER_STALL) libusb_clear_halt(handle_, record->endpoint);
  const bool succeeded = usb->status == LIBUSB_TRANSFER_COMPLETED;
  const uint32_t count = usb->actual_length > 0 ? static_cast<uint32_t>(usb->actual_length) : 0;
  record->transfer->Complete(succeeded, IsInEndpoint(record->endpoint) ? record->buffer.data() : nullptr, count);
  libusb_free_transfer(usb);
  drained_.notify_all();
}

void LibusbConnection::CancelInFlight(uint8_t endpoint) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [key, inFlight] : inFlight_)
    if (endpoint == kAllEndpoints || inFlight->endpoint == endpoint) libusb_cancel_transfer(inFlight->usb);
}

void LibusbConnection::WaitForInFlight(std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  drained_.wait_for(lock, wait, [this] { return inFlight_.empty(); });
}

// Transfers libusb has not given back: their callers learn they failed, and
// each record is left to free itself if its completion ever comes, because
// libusb may still write into its buffer.
void LibusbConnection::AbandonInFlight() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [key, inFlight] : inFlight_) {
    inFlight->transfer->Complete(false, nullptr, 0);
    inFlight->owner = nullptr;
    static_cast<void>(inFlight.release());
  }
  inFlight_.clear();
}

void LibusbConnection::HandleEvents() {
  while (!stopping_) {
    timeval slice{0, static_cast<long>(kLibusbEventSlice.count()) * kMicrosecondsPerMillisecond};
    if (libusb_handle_events_timeout_completed(context_->Get(), &slice, nullptr) != LIBUSB_SUCCESS)
      std::this_thread::sleep_for(kLibusbEventSlice);
  }
}

}  // namespace ferrolt::platform
