// One event of Linux's usbmon in its binary form (Documentation/usb/usbmon.rst,
// "Raw binary format and API"): the 64-byte header of the mmapped interface,
// which is what LINKTYPE_USB_LINUX_MMAPPED packets begin with, before the
// event's data.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

namespace ferrolt::capture {

inline constexpr size_t kUsbmonHeaderSize = 64;
inline constexpr size_t kSetupPacketSize = 8;
// Event types: a URB handed to the host controller, its callback, and a
// submission the controller refused.
inline constexpr char kSubmission = 'S';
inline constexpr char kCallback = 'C';
inline constexpr char kSubmissionError = 'E';
// Transfer types as usbmon numbers them.
inline constexpr uint8_t kControlTransfer = 2;
inline constexpr uint8_t kBulkTransfer = 3;
inline constexpr uint8_t kDirectionIn = 0x80;

struct UsbmonEvent {
  uint64_t id = 0;  // the URB's tag: the same in its submission and its callback
  char type = kSubmission;
  uint8_t transferType = kBulkTransfer;
  uint8_t endpoint = 0;  // its number, with kDirectionIn for IN
  uint8_t device = 0;
  uint16_t bus = 0;
  int64_t seconds = 0;
  int32_t microseconds = 0;
  int32_t status = 0;
  uint32_t urbLength = 0;                                      // asked for in a submission, moved in a callback
  uint32_t dataLength = 0;                                     // the bytes that follow the header
  std::optional<std::array<uint8_t, kSetupPacketSize>> setup;  // a control submission's
};

using UsbmonHeader = std::array<uint8_t, kUsbmonHeaderSize>;

// Field offsets in the header (usbmon.rst's struct usbmon_packet).
inline constexpr size_t kIdAt = 0, kTypeAt = 8, kTransferTypeAt = 9, kEndpointAt = 10, kDeviceAt = 11, kBusAt = 12,
                        kSetupFlagAt = 14, kDataFlagAt = 15, kSecondsAt = 16, kMicrosecondsAt = 24, kStatusAt = 28,
                        kUrbLengthAt = 32, kDataLengthAt = 36, kSetupAt = 40, kTransferFlagsAt = 56;

// The header of event, as the kernel fills it; its flags follow from the
// event (data present or why not, setup present or not).
UsbmonHeader HeaderOf(const UsbmonEvent& event);

}  // namespace ferrolt::capture
