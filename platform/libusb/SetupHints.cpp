#include "platform/libusb/SetupHints.h"

#include "platform/Hint.h"

// The rule the install puts in place, in the words of its file; a literal,
// so that a hint's text holds it (its two values: vendor and product id).
#define FERROLT_UDEV_RULE_LINES                                         \
  "  /usr/lib/udev/rules.d/70-ferrolt.rules (or /etc/udev/rules.d/):\n" \
  "  SUBSYSTEM==\"usb\", ATTR{idVendor}==\"%04x\", ATTR{idProduct}==\"%04x\", TAG+=\"uaccess\"\n"

namespace ferrolt::platform {
namespace {

Hint openHint;
Hint claimHint;
Hint notFoundHint;

}  // namespace

void HintOpenFailure(HintSink& hints, libusb_device* device, uint16_t vendorId, uint16_t productId, int error) {
  if (!openHint.First()) return;
  const int bus = libusb_get_bus_number(device);
  const int address = libusb_get_device_address(device);
  if (error != LIBUSB_ERROR_ACCESS) {
    PrintHintText(hints, "cannot open /dev/bus/usb/%03d/%03d: %s\n", bus, address,
                  libusb_strerror(static_cast<libusb_error>(error)));
    return;
  }
  PrintHintText(hints,
                "no permission to open /dev/bus/usb/%03d/%03d. The udev rule that the install puts in place gives "
                "it to the user logged in at the machine:\n" FERROLT_UDEV_RULE_LINES
                "then 'udevadm control --reload-rules && udevadm trigger', or replug the device.\n",
                bus, address, vendorId, productId);
}

void HintClaimFailure(HintSink& hints, libusb_device* device, uint8_t interfaceNumber, int error) {
  if (!claimHint.First()) return;
  const int bus = libusb_get_bus_number(device);
  const int address = libusb_get_device_address(device);
  if (error == LIBUSB_ERROR_BUSY) {
    PrintHintText(hints,
                  "interface %d of /dev/bus/usb/%03d/%03d is held by another program or driver; end that program "
                  "(another ferrolt?) and try again.\n",
                  interfaceNumber, bus, address);
    return;
  }
  PrintHintText(hints, "cannot claim interface %d of /dev/bus/usb/%03d/%03d: %s\n", interfaceNumber, bus, address,
                libusb_strerror(static_cast<libusb_error>(error)));
}

void HintNoDevice(HintSink& hints, const UsbInterfaceId& wanted) {
  if (!notFoundHint.First()) return;
  PrintHintText(hints,
                "no USB device %04x:%04x with interface %d was found. 'lsusb -d %04x:%04x' lists it when it is "
                "plugged in; then the udev rule\n" FERROLT_UDEV_RULE_LINES
                "gives the user at the machine access. Without hardware, FERROLT_EMULATOR=SOCKET or tcp:HOST:PORT "
                "points ferrolt at ferrolt-devsim.\n",
                wanted.vendorId, wanted.productId, wanted.interfaceNumber, wanted.vendorId, wanted.productId,
                wanted.vendorId, wanted.productId);
}

}  // namespace ferrolt::platform
