// One libusb session, shared by the backend and every connection it opened,
// so it outlives the last handle.
#pragma once

#include <libusb.h>

#include <memory>

namespace ferrolt::platform {

class LibusbContext {
 public:
  // Null when libusb cannot start (no USB support on this machine).
  static std::shared_ptr<LibusbContext> Create();
  ~LibusbContext();
  LibusbContext(const LibusbContext&) = delete;
  LibusbContext& operator=(const LibusbContext&) = delete;

  libusb_context* Get() const { return context_; }

 private:
  explicit LibusbContext(libusb_context* context) : context_(context) {}
  libusb_context* const context_;
};

}  // namespace ferrolt::platform
