// A device's configuration descriptor and the interface settings in it.
#pragma once

#include <libusb.h>

#include <cstdint>
#include <memory>

namespace ferrolt::platform {

struct ConfigDescriptorDeleter {
  void operator()(libusb_config_descriptor* config) const { libusb_free_config_descriptor(config); }
};
using ConfigDescriptorPtr = std::unique_ptr<libusb_config_descriptor, ConfigDescriptorDeleter>;

// The active configuration, or the first one when the device has none active
// (an unconfigured device still shows what it offers). Null when neither reads.
ConfigDescriptorPtr ReadConfigDescriptor(libusb_device* device);

// Alternate setting 0 of the interface numbered interfaceNumber, or null.
const libusb_interface_descriptor* FindInterfaceSetting(const libusb_config_descriptor& config,
                                                        uint8_t interfaceNumber);

}  // namespace ferrolt::platform
