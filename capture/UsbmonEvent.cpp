#include "capture/UsbmonEvent.h"

#include <algorithm>

#include "capture/LittleEndian.h"

namespace ferrolt::capture {
namespace {

// The flags that say a setup packet or data is present; otherwise a setup
// flag of '-', and a data flag that says why there is none: '<' for an IN
// submission, '>' for an OUT callback, 'E' for a refused submission.
constexpr char kPresent = 0;
constexpr char kNoSetup = '-';
constexpr char kInSubmission = '<';
constexpr char kOutCallback = '>';
// URB_DIR_IN among the URB's transfer flags, which the header copies.
constexpr uint32_t kUrbDirIn = 0x0200;

char DataFlag(const UsbmonEvent& event) {
  const bool in = (event.endpoint & kDirectionIn) != 0;
  if (event.type == kSubmissionError) return kSubmissionError;
  if (event.type == kSubmission && in) return kInSubmission;
  if (event.type == kCallback && !in) return kOutCallback;
  return kPresent;
}

}  // namespace

// Interval, start frame and the isochronous counts stay zero: they belong to
// interrupt and isochronous transfers.
UsbmonHeader HeaderOf(const UsbmonEvent& event) {
  UsbmonHeader header{};
  StoreU64(&header[kIdAt], event.id);
  header[kTypeAt] = static_cast<uint8_t>(event.type);
  header[kTransferTypeAt] = event.transferType;
  header[kEndpointAt] = event.endpoint;
  header[kDeviceAt] = event.device;
  StoreU16(&header[kBusAt], event.bus);
  header[kSetupFlagAt] = static_cast<uint8_t>(event.setup ? kPresent : kNoSetup);
  header[kDataFlagAt] = static_cast<uint8_t>(DataFlag(event));
  StoreU64(&header[kSecondsAt], static_cast<uint64_t>(event.seconds));
  StoreU32(&header[kMicrosecondsAt], static_cast<uint32_t>(event.microseconds));
  StoreU32(&header[kStatusAt], static_cast<uint32_t>(event.status));
  StoreU32(&header[kUrbLengthAt], event.urbLength);
  StoreU32(&header[kDataLengthAt], event.dataLength);
  if (event.setup) std::copy(event.setup->begin(), event.setup->end(), &header[kSetupAt]);
  StoreU32(&header[kTransferFlagsAt], (event.endpoint & kDirectionIn) != 0 ? kUrbDirIn : 0);
  return header;
}

}  // namespace ferrolt::capture
