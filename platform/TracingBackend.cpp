#include "platform/TracingBackend.h"

#include <cstdlib>
#include <mutex>
#include <vector>

#include "platform/TracingConnection.h"

namespace ferrolt::platform {
namespace {

constexpr const char* kProgramName = "ferrolt";

// The tool never destroys its backend, so the captures still open as the
// process ends are written out and closed then. Made while the tool's
// backend is, this ends after the tool's exit hook has closed the link
// (static objects end in the reverse order of their making), so the ends of
// the last transfers are in the file. A capture whose backend has gone has
// closed itself.
class ClosedAtExit {
 public:
  ~ClosedAtExit() {
    for (const auto& held : captures_)
      if (const auto capture = held.lock()) capture->Close();
  }
  void Add(const std::shared_ptr<capture::UsbCapture>& capture) {
    std::lock_guard<std::mutex> lock(mutex_);
    captures_.push_back(capture);
  }

 private:
  std::mutex mutex_;
  std::vector<std::weak_ptr<capture::UsbCapture>> captures_;
};

ClosedAtExit& CapturesClosedAtExit() {
  static ClosedAtExit captures;
  return captures;
}

// The device as its path names it (ids and interface); the build's ids and
// interface 4 where the path says nothing of them.
capture::UsbDeviceModel ModelOfPath(const std::string& path) {
  capture::UsbDeviceModel model;
  if (const auto parsed = ParseInterfacePath(path)) {
    model.vendorId = parsed->id.vendorId;
    model.productId = parsed->id.productId;
    model.bulkInterface = parsed->id.interfaceNumber;
    model.interfaceCount = static_cast<uint8_t>(parsed->id.interfaceNumber + 1);
  }
  return model;
}

}  // namespace

TracingBackend::TracingBackend(std::unique_ptr<DeviceBackend> inner, std::shared_ptr<capture::UsbCapture> capture)
    : inner_(std::move(inner)), capture_(std::move(capture)) {}

InterfaceListing TracingBackend::ListInterfaces() { return inner_->ListInterfaces(); }

std::vector<std::string> TracingBackend::ListRegisteredInterfaces(const UsbInterfaceId& wanted) {
  return inner_->ListRegisteredInterfaces(wanted);
}

void TracingBackend::HintNotFound(const UsbInterfaceId& wanted) { inner_->HintNotFound(wanted); }

std::string TracingBackend::DescribeDevice(const std::string& path) { return inner_->DescribeDevice(path); }

std::optional<AttachedDevice> TracingBackend::Identify(const std::string& path) { return inner_->Identify(path); }

std::unique_ptr<DeviceConnection> TracingBackend::Open(const std::string& path) {
  std::unique_ptr<DeviceConnection> opened = inner_->Open(path);
  if (opened == nullptr) return nullptr;
  return std::make_unique<TracingConnection>(std::move(opened), capture_, ModelOfPath(path));
}

std::unique_ptr<DeviceBackend> TracedWhenAsked(std::unique_ptr<DeviceBackend> backend) {
  const char* path = std::getenv(kTraceVariable);
  if (path == nullptr || *path == '\0') return backend;
  std::shared_ptr<capture::UsbCapture> capture = capture::UsbCapture::Create(path, kProgramName);
  if (capture == nullptr) return backend;
  CapturesClosedAtExit().Add(capture);
  return std::make_unique<TracingBackend>(std::move(backend), std::move(capture));
}

}  // namespace ferrolt::platform
