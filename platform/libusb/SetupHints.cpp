#include "platform/libusb/SetupHints.h"

#include <cstdio>

#include "platform/Hint.h"

namespace ferrolt::platform {
namespace {

Hint openHint;
Hint claimHint;
Hint notFoundHint;

// The rule the install puts in place, in the words of its file.
constexpr const char* kUdevRule =
    "  /usr/lib/udev/rules.d/70-ferrolt.rules (or /etc/udev/rules.d/):\n"
    "  SUBSYSTEM==\"usb\", ATTR{idVendor}==\"%04x\", ATTR{idProduct}==\"%04x\", TAG+=\"uaccess\"\n";

}  // namespace

void HintOpenFailure(libusb_device* device, uint16_t vendorId, uint16_t productId, int error) {
  if (!openHint.First()) return;
  const int bus = libusb_get_bus_number(device);
  const int address = libusb_get_device_address(device);
  if (error != LIBUSB_ERROR_ACCESS) {
    PrintHintText("cannot open /dev/bus/usb/%03d/%03d: %s\n", bus, address,
                  libusb_strerror(static_cast<libusb_error>(error)));
    return;
  }
  PrintHintText(
      "no permission to open /dev/bus/usb/%03d/%03d. The udev rule that the install puts in place gives "
      "it to the user logged in at the machine:\n",
      bus, address);
  std::fprintf(stderr, kUdevRule, vendorId, productId);
  std::fputs("then 'udevadm control --reload-rules && udevadm trigger', or replug the device.\n", stderr);
}

void HintClaimFailure(libusb_device* device, uint8_t interfaceNumber, int error) {
  if (!claimHint.First()) return;
  const int bus = libusb_get_bus_number(device);
  const int address = libusb_get_device_address(device);
  if (error == LIBUSB_ERROR_BUSY) {
    PrintHintText(
        "interface %d of /dev/bus/usb/%03d/%03d is held by another program or driver; end that program "
        "(another ferrolt?) and try again.\n",
        interfaceNumber, bus, address);
    return;
  }
  PrintHintText("cannot claim interface %d of /dev/bus/usb/%03d/%03d: %s\n", interfaceNumber, bus, address,
                libusb_strerror(static_cast<libusb_error>(error)));
}

void HintNoDevice(const UsbInterfaceId& wanted) {
  if (!notFoundHint.First()) return;
  PrintHintText(
      "no USB device %04x:%04x with interface %d was found. 'lsusb -d %04x:%04x' lists it when it is "
      "plugged in; then the udev rule\n",
      wanted.vendorId, wanted.productId, wanted.interfaceNumber, wanted.vendorId, wanted.productId);
  std::fprintf(stderr, kUdevRule, wanted.vendorId, wanted.productId);
  std::fputs(
      "gives the user at the machine access. Without hardware, FERROLT_EMULATOR=SOCKET or tcp:HOST:PORT "
      "points ferrolt at ferrolt-devsim.\n",
      stderr);
}

}  // namespace ferrolt::platform
