#include "platform/libusb/LibusbContext.h"

namespace ferrolt::platform {

std::shared_ptr<LibusbContext> LibusbContext::Create() {
  libusb_context* context = nullptr;
  if (libusb_init(&context) != LIBUSB_SUCCESS) return nullptr;
  return std::shared_ptr<LibusbContext>(new LibusbContext(context));
}

LibusbContext::~LibusbContext() { libusb_exit(context_); }

}  // namespace ferrolt::platform
