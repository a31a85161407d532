#include "capture/UsbCapture.h"

#include <cerrno>
#include <cstring>

#include "capture/Pcapng.h"

namespace ferrolt::capture {
namespace {

// The status usbmon shows, as Linux ends a URB the same way
// (Documentation/driver-api/usb/error-codes.rst): a submission is
// -EINPROGRESS; a transfer done, 0; one the host withdrew, -ECONNRESET, as
// usb_unlink_urb ends a URB that usbfs discards (libusb's cancel); one still
// outstanding when the link closed, -ENOENT, as usb_kill_urb ends the URBs of
// a closing usbfs file; one that failed on its own, -EPROTO, the host
// controller's "unknown USB error" (the platform layer tells a stall from a
// device gone no better than that); a submission refused at once, -ENODEV,
// as for a device that is gone. Linux's numbers, spelled out: the errno
// values of the system writing the capture may differ.
constexpr int32_t kStatusInProgress = -115;  // -EINPROGRESS
constexpr int32_t kStatusDone = 0;
constexpr int32_t kStatusUnlinked = -104;  // -ECONNRESET
constexpr int32_t kStatusKilled = -2;      // -ENOENT
constexpr int32_t kStatusFailed = -71;     // -EPROTO
constexpr int32_t kStatusNoDevice = -19;   // -ENODEV

// Where the device sits: the first address after its bus's root hub, which
// is device 1 on every Linux bus. The interface is named as a kernel capture
// of that bus is.
constexpr uint16_t kBus = 1;
constexpr uint8_t kDeviceAddress = 2;
constexpr const char* kInterfaceName = "usbmon1";

// GET_DESCRIPTOR: a standard request, device to host, to the device.
constexpr uint8_t kGetDescriptorRequestType = 0x80;
constexpr uint8_t kGetDescriptor = 6;
constexpr uint8_t kControlEndpointIn = kDirectionIn;

int32_t StatusOf(TransferEnd end) {
  switch (end) {
    case TransferEnd::Done:
      return kStatusDone;
    case TransferEnd::Withdrawn:
      return kStatusUnlinked;
    case TransferEnd::Closed:
      return kStatusKilled;
    case TransferEnd::Failed:
      break;
  }
  return kStatusFailed;
}

int64_t MicrosecondsSinceEpoch() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool IsIn(uint8_t endpoint) { return (endpoint & kDirectionIn) != 0; }

UsbmonEvent BulkEvent(uint64_t id, char type, uint8_t endpoint, int32_t status) {
  UsbmonEvent event;
  event.id = id;
  event.type = type;
  event.transferType = kBulkTransfer;
  event.endpoint = endpoint;
  event.status = status;
  return event;
}

}  // namespace

void UsbCapture::SayOnStandardError(const std::string& line) {
  std::fprintf(stderr, "%s\n", line.c_str());
  std::fflush(stderr);
}

std::unique_ptr<UsbCapture> UsbCapture::Create(const std::string& path, const std::string& programName,
                                               FailureSink said) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  const int openError = errno;
  std::unique_ptr<UsbCapture> capture(new UsbCapture(file, path, programName, std::move(said)));
  std::lock_guard<std::mutex> lock(capture->mutex_);
  if (file == nullptr) {
    capture->SayFailureLocked(openError);
    return nullptr;
  }
  AppendSectionHeader(capture->gathered_, programName);
  AppendInterfaceDescription(capture->gathered_, kLinkTypeUsbLinuxMmapped, kInterfaceName);
  // Written out at once: a file that takes nothing is said now, not later.
  capture->WriteOutLocked(MicrosecondsSinceEpoch());
  return capture->file_ != nullptr ? std::move(capture) : nullptr;
}

UsbCapture::UsbCapture(std::FILE* file, std::string path, std::string programName, FailureSink said)
    : path_(std::move(path)), programName_(std::move(programName)), said_(std::move(said)), file_(file) {
  // Room for the record that crosses kWriteOutBytes too: records gather
  // without an allocation.
  gathered_.reserve(2 * kWriteOutBytes);
}

UsbCapture::~UsbCapture() { Close(); }

void UsbCapture::Close() {
  std::lock_guard<std::mutex> lock(mutex_);
  WriteOutLocked(MicrosecondsSinceEpoch());
  CloseLocked();
}

void UsbCapture::RecordDescriptors(const UsbDeviceModel& model) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (descriptorsRecorded_) return;
  descriptorsRecorded_ = true;
  RecordDescriptorReadLocked(kDeviceDescriptorType, DeviceDescriptorOf(model));
  RecordDescriptorReadLocked(kConfigDescriptorType, ConfigDescriptorOf(model));
}

void UsbCapture::RecordDescriptorReadLocked(uint8_t descriptorType, const std::vector<uint8_t>& descriptor) {
  const auto length = static_cast<uint16_t>(descriptor.size());
  UsbmonEvent event;
  event.id = nextId_.fetch_add(1, std::memory_order_relaxed);
  event.transferType = kControlTransfer;
  event.endpoint = kControlEndpointIn;
  event.status = kStatusInProgress;
  event.urbLength = length;
  // wValue: index 0, the type in its high byte; wIndex 0; then wLength.
  const auto lengthLow = static_cast<uint8_t>(length & 0xFF);
  const auto lengthHigh = static_cast<uint8_t>(length >> 8);
  event.setup = {kGetDescriptorRequestType, kGetDescriptor, 0, descriptorType, 0, 0, lengthLow, lengthHigh};
  RecordLocked(event, nullptr);

  event.type = kCallback;
  event.status = kStatusDone;
  event.setup.reset();
  event.dataLength = length;
  RecordLocked(event, descriptor.data());
}

uint64_t UsbCapture::Submit(uint8_t endpoint, const uint8_t* data, uint32_t length) {
  const uint64_t id = nextId_.fetch_add(1, std::memory_order_relaxed);
  UsbmonEvent event = BulkEvent(id, kSubmission, endpoint, kStatusInProgress);
  event.urbLength = length;
  // An IN submission carries no data, only the length asked for.
  if (!IsIn(endpoint)) event.dataLength = length;
  Record(event, data);
  return id;
}

void UsbCapture::Refuse(uint64_t id, uint8_t endpoint) {
  Record(BulkEvent(id, kSubmissionError, endpoint, kStatusNoDevice), nullptr);
}

void UsbCapture::Complete(uint64_t id, uint8_t endpoint, TransferEnd end, const uint8_t* data, uint32_t count) {
  UsbmonEvent event = BulkEvent(id, kCallback, endpoint, StatusOf(end));
  event.urbLength = count;
  // An OUT callback carries no data, only the count moved.
  if (IsIn(endpoint) && data != nullptr) event.dataLength = count;
  Record(event, data);
}

// The record is made before the lock is taken, which then covers the copy
// alone: the threads that submit and complete transfers seldom wait for
// each other.
void UsbCapture::Record(UsbmonEvent event, const uint8_t* data) {
  const int64_t microseconds = MicrosecondsSinceEpoch();
  const UsbmonHeader header = HeaderAt(event, microseconds, data);
  std::lock_guard<std::mutex> lock(mutex_);
  GatherLocked(microseconds, header, {data, event.dataLength});
}

void UsbCapture::RecordLocked(UsbmonEvent event, const uint8_t* data) {
  const int64_t microseconds = MicrosecondsSinceEpoch();
  const UsbmonHeader header = HeaderAt(event, microseconds, data);
  GatherLocked(microseconds, header, {data, event.dataLength});
}

UsbmonHeader UsbCapture::HeaderAt(UsbmonEvent& event, int64_t microseconds, const uint8_t* data) {
  event.device = kDeviceAddress;
  event.bus = kBus;
  event.seconds = microseconds / std::micro::den;
  event.microseconds = static_cast<int32_t>(microseconds % std::micro::den);
  if (data == nullptr) event.dataLength = 0;
  return HeaderOf(event);
}

void UsbCapture::GatherLocked(int64_t microseconds, const UsbmonHeader& header, std::span<const uint8_t> data) {
  if (file_ == nullptr) return;
  AppendEnhancedPacket(gathered_, static_cast<uint64_t>(microseconds), header, data);
  // A clock set back counts as time passed.
  const int64_t sinceWriteOut = microseconds - lastWriteOut_;
  if (gathered_.size() >= kWriteOutBytes || sinceWriteOut < 0 ||
      sinceWriteOut >= std::chrono::microseconds(kWriteOutInterval).count()) {
    WriteOutLocked(microseconds);
  }
}

void UsbCapture::WriteOutLocked(int64_t microsecondsSinceEpoch) {
  lastWriteOut_ = microsecondsSinceEpoch;
  if (file_ == nullptr || gathered_.empty()) return;
  const bool written =
      std::fwrite(gathered_.data(), 1, gathered_.size(), file_) == gathered_.size() && std::fflush(file_) == 0;
  gathered_.clear();
  if (written) return;
  SayFailureLocked(errno);
  CloseLocked();
}

void UsbCapture::SayFailureLocked(int error) {
  said_(programName_ + ": cannot write the capture " + path_ + " (" + std::strerror(error) + "); going on without it");
}

void UsbCapture::CloseLocked() {
  if (file_ == nullptr) return;
  std::fclose(file_);
  file_ = nullptr;
}

}  // namespace ferrolt::capture
