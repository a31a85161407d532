#include "api/OpenedDevice.h"

#include <utility>

#include "capture/UsbCapture.h"
#include "link/Limits.h"
#include "platform/TracingBackend.h"

namespace ferrolt::api {
namespace {

// Where the capture file says who wrote it.
constexpr const char* kProgramName = "libferrolt";
constexpr const char* kBusyMessage = "another operation is running on this device";

// The library's statuses are the tool's exit statuses.
static_assert(FERROLT_DONE == kStatusDone && FERROLT_INVALID_ARGUMENT == kStatusUsage &&
              FERROLT_NO_DEVICE == kStatusDeviceNotFound && FERROLT_REFUSED == kStatusRefused &&
              FERROLT_FAILED == kStatusFailed && FERROLT_INCOMPLETE == kStatusIncomplete &&
              FERROLT_CANCELLED == kStatusCancelled);

// Said when the operation's own lines named no reason.
std::string StatusText(ferrolt_status status) {
  switch (status) {
    case FERROLT_DONE:
      return "";
    case FERROLT_INVALID_ARGUMENT:
      return "invalid argument";
    case FERROLT_NO_DEVICE:
      return "device not found";
    case FERROLT_REFUSED:
      return kBusyMessage;
    case FERROLT_INCOMPLETE:
      return "the file moved is incomplete";
    case FERROLT_CANCELLED:
      return "cancelled";
    case FERROLT_FAILED:
      break;
  }
  return "the operation failed";
}

}  // namespace

OpenedDevice::Opening OpenedDevice::Open(const char* place, const std::string& tracePath) {
  auto reporters = std::make_unique<CallerReporters>();
  std::unique_ptr<platform::DeviceBackend> backend = platform::CreateBackendFor(place, *reporters);
  if (backend == nullptr) return {FERROLT_INVALID_ARGUMENT, nullptr};
  if (!tracePath.empty()) {
    // The library prints nothing: a capture that cannot be created fails the
    // open instead, and one that cannot be written later just ends.
    std::shared_ptr<capture::UsbCapture> capture =
        capture::UsbCapture::Create(tracePath, kProgramName, [](const std::string&) {});
    if (capture == nullptr) return {FERROLT_FAILED, nullptr};
    // The capture lives as long as the backend, so ferrolt_close writes it out.
    backend = std::make_unique<platform::TracingBackend>(std::move(backend), std::move(capture));
  }
  return {FERROLT_DONE, std::unique_ptr<OpenedDevice>(new OpenedDevice(std::move(reporters), std::move(backend)))};
}

OpenedDevice::OpenedDevice(std::unique_ptr<CallerReporters> reporters, std::unique_ptr<platform::DeviceBackend> backend)
    : reporters_(std::move(reporters)), admin_(std::move(backend), *reporters_) {}

OpenedDevice::~OpenedDevice() { admin_.Shutdown(limits::kTeardownWait); }

ferrolt_status OpenedDevice::Run(const ferrolt_callbacks* callbacks, const Launch& launch) {
  std::unique_lock<std::mutex> call(callMutex_, std::try_to_lock);
  if (!call.owns_lock()) return Refuse(FERROLT_REFUSED, kBusyMessage);
  reporters_->Begin(callbacks);
  {
    std::lock_guard<std::mutex> lock(cancelMutex_);
    operating_ = true;
    launched_ = false;
    cancelPending_ = false;
  }
  // The launch may find and open the device first, on this thread; a cancel
  // meanwhile waits for the operation to have started.
  const bool launched = launch(admin_, *reporters_) == 0;
  bool cancelNow = false;
  {
    std::lock_guard<std::mutex> lock(cancelMutex_);
    launched_ = launched;
    cancelNow = launched && cancelPending_;
    if (cancelNow) ++cancelsUnderWay_;
  }
  if (cancelNow) CancelLaunched();
  admin_.WaitForOperation();
  return Settle(launched);
}

ferrolt_status OpenedDevice::Refuse(ferrolt_status status, std::string message) {
  KeepMessage(std::move(message));
  return status;
}

void OpenedDevice::Cancel() {
  {
    std::lock_guard<std::mutex> lock(cancelMutex_);
    if (!operating_) return;
    if (!launched_) {
      cancelPending_ = true;
      return;
    }
    ++cancelsUnderWay_;
  }
  CancelLaunched();
}

void OpenedDevice::CancelLaunched() {
  admin_.CancelOperation(reporters_.get());
  {
    std::lock_guard<std::mutex> lock(cancelMutex_);
    --cancelsUnderWay_;
  }
  cancelsEnded_.notify_all();
}

std::string OpenedDevice::Message() const {
  std::lock_guard<std::mutex> lock(messageMutex_);
  return message_;
}

// The worker has ended; a cancel that came in time still writes its packet
// (bounded by a write's wait) and prints its line through the reporters, so
// the call waits for it before it lets the reporters and the link go.
ferrolt_status OpenedDevice::Settle(bool launched) {
  {
    std::unique_lock<std::mutex> lock(cancelMutex_);
    operating_ = false;
    launched_ = false;
    cancelsEnded_.wait(lock, [this] { return cancelsUnderWay_ == 0; });
  }
  admin_.Settle(limits::kTeardownWait);
  const ferrolt_status status =
      static_cast<ferrolt_status>(ExitStatusOf(launched ? admin_.LastOutcome() : Outcome::Refused));
  reporters_->End();
  KeepMessage(MessageOf(status));
  return status;
}

// A device not found is told by the backend's hint, when it gave one: the
// lines of the failed open only name the step that failed. A failure without
// an error line is told by the last line the operation reached.
std::string OpenedDevice::MessageOf(ferrolt_status status) const {
  if (status == FERROLT_NO_DEVICE) {
    const std::string hint = reporters_->LastNote();
    return StatusText(status) + (hint.empty() ? "" : ": " + hint);
  }
  const bool failed = status == FERROLT_FAILED || status == FERROLT_INCOMPLETE;
  const std::string message = reporters_->Message(!failed);
  return message.empty() ? StatusText(status) : message;
}

void OpenedDevice::KeepMessage(std::string message) {
  std::lock_guard<std::mutex> lock(messageMutex_);
  message_ = std::move(message);
}

}  // namespace ferrolt::api
