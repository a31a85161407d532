#include "platform/libusb/SetupHints.h"

#include <atomic>
#include <cstdio>

namespace ferrolt::platform {
namespace {

std::atomic<bool> openHinted{false};
std::atomic<bool> claimHinted{false};

bool FirstTime(std::atomic<bool>& hinted) { return !hinted.exchange(true); }

}  // namespace

void HintOpenFailure(libusb_device* device, uint16_t vendorId, uint16_t productId, int error) {
  if (!FirstTime(openHinted)) return;
  const int bus = libusb_get_bus_number(device);
  const int address = libusb_get_device_address(device);
  if (error != LIBUSB_ERROR_ACCESS) {
    std::fprintf(stderr, "ferrolt: cannot open /dev/bus/usb/%03d/%03d: %s\n", bus, address,
                 libusb_strerror(static_cast<libusb_error>(error)));
    return;
  }
  std::fprintf(stderr,
               "ferrolt: no permission to open /dev/bus/usb/%03d/%03d. A udev rule gives it, for instance\n"
               "  /etc/udev/rules.d/70-ferrolt.rules:\n"
               "  SUBSYSTEM==\"usb\", ATTR{idVendor}==\"%04x\", ATTR{idProduct}==\"%04x\", MODE=\"0660\", "
               "GROUP=\"plugdev\"\n"
               "then 'udevadm control --reload && udevadm trigger', replug the device, and be in group plugdev.\n",
               bus, address, vendorId, productId);
}

void HintClaimFailure(libusb_device* device, uint8_t interfaceNumber, int error) {
  if (!FirstTime(claimHinted)) return;
  const int bus = libusb_get_bus_number(device);
  const int address = libusb_get_device_address(device);
  if (error == LIBUSB_ERROR_BUSY) {
    std::fprintf(stderr,
                 "ferrolt: interface %d of /dev/bus/usb/%03d/%03d is held by another program or driver; "
                 "end that program (another ferrolt?) and try again.\n",
                 interfaceNumber, bus, address);
    return;
  }
  std::fprintf(stderr, "ferrolt: cannot claim interface %d of /dev/bus/usb/%03d/%03d: %s\n", interfaceNumber, bus,
               address, libusb_strerror(static_cast<libusb_error>(error)));
}

}  // namespace ferrolt::platform
