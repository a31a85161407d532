#include "platform/libusb/LibusbConnection.h"

#include <algorithm>
#include <cstring>

#include "capture/UsbCapture.h"
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

// A cancelled transfer was withdrawn by a flush or an abort, or by closing.
capture::TransferEnd CapturedEnd(libusb_transfer_status status, bool closing) {
  if (status == LIBUSB_TRANSFER_COMPLETED) return capture::TransferEnd::Done;
  if (status != LIBUSB_TRANSFER_CANCELLED) return capture::TransferEnd::Failed;
  return closing ? capture::TransferEnd::Closed : capture::TransferEnd::Withdrawn;
}

}  // namespace

LibusbConnection::LibusbConnection(std::shared_ptr<LibusbContext> context, libusb_device_handle* handle,
                                   uint8_t interfaceNumber, HintSink& hints)
    : context_(std::move(context)),
      handle_(handle),
      interfaceNumber_(interfaceNumber),
      hints_(hints),
      events_([this] { HandleEvents(); }) {}

LibusbConnection::~LibusbConnection() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closing_ = true;
    CancelInFlightLocked(kAllEndpoints);
  }
  if (WaitForInFlight(kLibusbCancelWait)) {
    // The device keeps a halt across handles: cleared here, the next opener
    // does not meet the stall this one saw.
    std::set<uint8_t> halted;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      halted = halted_;
    }
    for (const uint8_t endpoint : halted) libusb_clear_halt(handle_, endpoint);
  }
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
    HintClaimFailure(hints_, libusb_get_device(handle_), interfaceNumber_, claimed);
    return false;
  }
  claimed_ = true;
  std::vector<PipeInfo> pipes;
  if (ReadPipes(pipes)) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const PipeInfo& pipe : pipes) packetSizes_[pipe.pipeId] = pipe.maximumPacketSize;
  }
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
    // The Windows query reports full and low speed alike as its lowest value.
    case LIBUSB_SPEED_LOW:
    case LIBUSB_SPEED_FULL:
      speed = kSpeedLow;
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
  if (IsInEndpoint(pipeId) || !Recover(pipeId)) return nullptr;
  auto transfer = std::make_shared<Transfer>(length);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!SubmitLocked(pipeId, data, transfer->RequestedLength(), transfer)) return nullptr;
  return transfer;
}

std::shared_ptr<Transfer> LibusbConnection::StartRead(uint8_t pipeId, uint32_t length) {
  if (!IsInEndpoint(pipeId) || !Recover(pipeId)) return nullptr;
  auto transfer = std::make_shared<Transfer>(length);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!received_.empty()) {
    transfer->Complete(true, received_.front().data.data(), received_.front().count);
    received_.pop_front();
    return transfer;
  }
  // One IN transfer in flight for each waiting reader: transfers queued on
  // an endpoint go to the wire in order, so the host controller goes on
  // asking the device for blocks while the link has reads queued.
  if (ReadsInFlightLocked(pipeId) <= readers_.size()) {
    const uint32_t readLength = ReadLengthLocked(pipeId);
    if (readLength == 0 || !SubmitLocked(pipeId, nullptr, readLength, nullptr)) return nullptr;
  }
  readers_.push_back(transfer);
  return transfer;
}

bool LibusbConnection::FlushPipe(uint8_t pipeId) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (IsInEndpoint(pipeId)) {
    received_.clear();
    FailReadersLocked();
    for (const auto& [key, inFlight] : inFlight_)
      if (inFlight->endpoint == pipeId) inFlight->flushed = true;
  }
  CancelInFlightLocked(pipeId);
  return true;
}

bool LibusbConnection::Abort(Transfer& transfer) {
  std::lock_guard<std::mutex> lock(mutex_);
  const bool reading = std::any_of(readers_.begin(), readers_.end(),
                                   [&](const std::shared_ptr<Transfer>& reader) { return reader.get() == &transfer; });
  for (const auto& [key, inFlight] : inFlight_) {
    if (inFlight->transfer.get() == &transfer || (reading && inFlight->transfer == nullptr))
      libusb_cancel_transfer(inFlight->usb);
  }
  // A transfer found nowhere has finished already.
  return true;
}

bool LibusbConnection::CaptureOwnTransfers(std::shared_ptr<capture::UsbCapture> capture) {
  std::lock_guard<std::mutex> lock(mutex_);
  capture_ = std::move(capture);
  return true;
}

// The IN pipe is read in whole packets: a buffer smaller than the packet the
// device sends ends the transfer in an overflow, its data undefined
// (libusb, "Packets and overflows"). One packet's worth, or as many as a
// block needs, so a device that sends one full packet is not waited on for more.
uint32_t LibusbConnection::ReadLengthLocked(uint8_t endpoint) const {
  const auto found = packetSizes_.find(endpoint);
  if (found == packetSizes_.end() || found->second == 0) return 0;
  const uint32_t packet = found->second;
  return (kMaxTransferLength + packet - 1) / packet * packet;
}

size_t LibusbConnection::ReadsInFlightLocked(uint8_t endpoint) const {
  return static_cast<size_t>(std::count_if(inFlight_.begin(), inFlight_.end(), [&](const auto& entry) {
    return entry.second->endpoint == endpoint && entry.second->transfer == nullptr;
  }));
}

bool LibusbConnection::SubmitLocked(uint8_t endpoint, const uint8_t* data, uint32_t length,
                                    std::shared_ptr<Transfer> transfer) {
  auto inFlight = std::make_unique<InFlight>();
  inFlight->owner = this;
  inFlight->transfer = std::move(transfer);
  inFlight->endpoint = endpoint;
  inFlight->buffer.assign(length, 0);
  if (data != nullptr) std::memcpy(inFlight->buffer.data(), data, length);
  inFlight->usb = libusb_alloc_transfer(0);
  if (inFlight->usb == nullptr) return false;
  libusb_fill_bulk_transfer(inFlight->usb, handle_, endpoint, inFlight->buffer.data(), static_cast<int>(length),
                            &LibusbConnection::OnTransferDone, inFlight.get(), kNoTransferTimeout);
  if (capture_ != nullptr) inFlight->captureId = capture_->Submit(endpoint, data, length);
  // Submitted under the lock, so the completion finds its record.
  if (libusb_submit_transfer(inFlight->usb) != LIBUSB_SUCCESS) {
    if (capture_ != nullptr) capture_->Refuse(inFlight->captureId, endpoint);
    libusb_free_transfer(inFlight->usb);
    return false;
  }
  InFlight* key = inFlight.get();
  inFlight_.emplace(key, std::move(inFlight));
  return true;
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

// Runs on the event thread. Nothing here blocks: a stalled endpoint is only
// marked, and cleared by the next caller (libusb_clear_halt blocks, and wants
// the endpoint's transfers cancelled first).
void LibusbConnection::Finish(InFlight* inFlight) {
  std::unique_ptr<InFlight> record;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // Out of the table before its transfer is freed: a cancel (a flush, or
    // closing) only touches the transfers the table holds.
    const auto found = inFlight_.find(inFlight);
    record = std::move(found->second);
    inFlight_.erase(found);
    const libusb_transfer_status status = record->usb->status;
    if (status == LIBUSB_TRANSFER_STALL) halted_.insert(record->endpoint);
    const uint32_t count = record->usb->actual_length > 0 ? static_cast<uint32_t>(record->usb->actual_length) : 0;
    if (capture_ != nullptr)
      capture_->Complete(record->captureId, record->endpoint, CapturedEnd(status, closing_), record->buffer.data(), count);
    if (record->transfer == nullptr) {
      TakeReadLocked(*record, status, count);
    } else {
      // A write whose bytes all went out went out, whatever else its end says
      // (a cancel that crossed its completion).
      const bool succeeded = status == LIBUSB_TRANSFER_COMPLETED || count == record->transfer->RequestedLength();
      record->transfer->Complete(succeeded, nullptr, count);
    }
  }
  libusb_free_transfer(record->usb);
  drained_.notify_all();
}

// What a read brought becomes blocks for the readers, however it ended: a
// cancel that crossed a completion still brings the data (usbfs reaps such a
// URB with it). Only an overflow's data is undefined.
void LibusbConnection::TakeReadLocked(const InFlight& read, libusb_transfer_status status, uint32_t count) {
  const bool completed = status == LIBUSB_TRANSFER_COMPLETED;
  if (!read.flushed && status != LIBUSB_TRANSFER_OVERFLOW) {
    for (uint32_t offset = 0; offset < count; offset += kMaxTransferLength) {
      Block block;
      block.count = std::min(count - offset, kMaxTransferLength);
      std::memcpy(block.data.data(), read.buffer.data() + offset, block.count);
      received_.push_back(block);
    }
    // A zero-length packet ends a transfer without a block: the reader
    // learns of it as a read of no bytes.
    if (completed && count == 0 && !readers_.empty()) {
      readers_.front()->Complete(true, nullptr, 0);
      readers_.pop_front();
    }
  }
  while (!readers_.empty() && !received_.empty()) {
    readers_.front()->Complete(true, received_.front().data.data(), received_.front().count);
    readers_.pop_front();
    received_.pop_front();
  }
  if (readers_.empty()) return;
  // Readers still waiting: a read that ended normally, or one a flush ended
  // before they came, is followed by enough reads for them; any other end
  // fails them.
  const bool readAgain = (completed || read.flushed) && !closing_ && halted_.count(read.endpoint) == 0;
  const uint32_t length = ReadLengthLocked(read.endpoint);
  while (readAgain && ReadsInFlightLocked(read.endpoint) < readers_.size()) {
    if (!SubmitLocked(read.endpoint, nullptr, length, nullptr)) break;
  }
  if (!readAgain || ReadsInFlightLocked(read.endpoint) == 0) FailReadersLocked();
}

void LibusbConnection::FailReadersLocked() {
  for (const auto& reader : readers_) reader->Complete(false, nullptr, 0);
  readers_.clear();
}

bool LibusbConnection::Recover(uint8_t endpoint) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (halted_.count(endpoint) == 0) return true;
    CancelInFlightLocked(endpoint);
    const bool drained = drained_.wait_for(lock, kLibusbCancelWait, [&] {
      return std::none_of(inFlight_.begin(), inFlight_.end(),
                          [&](const auto& entry) { return entry.second->endpoint == endpoint; });
    });
    if (!drained) return false;
  }
  // On the caller's thread: it blocks on a control transfer.
  if (libusb_clear_halt(handle_, endpoint) != LIBUSB_SUCCESS) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  halted_.erase(endpoint);
  return true;
}

void LibusbConnection::CancelInFlightLocked(uint8_t endpoint) {
  for (const auto& [key, inFlight] : inFlight_)
    if (endpoint == kAllEndpoints || inFlight->endpoint == endpoint) libusb_cancel_transfer(inFlight->usb);
}

bool LibusbConnection::WaitForInFlight(std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  return drained_.wait_for(lock, wait, [this] { return inFlight_.empty(); });
}

// Transfers libusb has not given back: their callers learn they failed, and
// each record is left to free itself if its completion ever comes, because
// libusb may still write into its buffer.
void LibusbConnection::AbandonInFlight() {
  std::lock_guard<std::mutex> lock(mutex_);
  FailReadersLocked();
  for (auto& [key, inFlight] : inFlight_) {
    if (inFlight->transfer != nullptr) inFlight->transfer->Complete(false, nullptr, 0);
    if (capture_ != nullptr)
      capture_->Complete(inFlight->captureId, inFlight->endpoint, capture::TransferEnd::Closed, nullptr, 0);
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
