#include "platform/libusb/ConfigDescriptor.h"

namespace ferrolt::platform {
namespace {

constexpr uint8_t kFirstConfiguration = 0;

}  // namespace

ConfigDescriptorPtr ReadConfigDescriptor(libusb_device* device) {
  libusb_config_descriptor* config = nullptr;
  if (libusb_get_active_config_descriptor(device, &config) == LIBUSB_SUCCESS) return ConfigDescriptorPtr(config);
  if (libusb_get_config_descriptor(device, kFirstConfiguration, &config) == LIBUSB_SUCCESS)
    return ConfigDescriptorPtr(config);
  return nullptr;
}

const libusb_interface_descriptor* FindInterfaceSetting(const libusb_config_descriptor& config,
                                                        uint8_t interfaceNumber) {
  for (int i = 0; i < config.bNumInterfaces; ++i) {
    const libusb_interface& interface = config.interface[i];
    if (interface.num_altsetting > 0 && interface.altsetting[0].bInterfaceNumber == interfaceNumber)
      return &interface.altsetting[0];
  }
  return nullptr;
}

}  // namespace ferrolt::platform
