#include "capture/UsbmonEvent.h"

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

void AppendUsbmonHeader(std::vector<uint8_t>& bytes, const UsbmonEvent& event) {
  AppendU64(bytes, event.id);
  bytes.push_back(static_cast<uint8_t>(event.type));
  bytes.push_back(event.transferType);
  bytes.push_back(event.endpoint);
  bytes.push_back(event.device);
  AppendU16(bytes, event.bus);
  bytes.push_back(static_cast<uint8_t>(event.setup ? kPresent : kNoSetup));
  bytes.push_back(static_cast<uint8_t>(DataFlag(event)));
  AppendU64(bytes, static_cast<uint64_t>(event.seconds));
  AppendU32(bytes, static_cast<uint32_t>(event.microseconds));
  AppendU32(bytes, static_cast<uint32_t>(event.status));
  AppendU32(bytes, event.urbLength);
  AppendU32(bytes, event.dataLength);
  const std::array<uint8_t, kSetupPacketSize> setup = event.setup.value_or(std::array<uint8_t, kSetupPacketSize>{});
  bytes.insert(bytes.end(), setup.begin(), setup.end());
  AppendU32(bytes, 0);  // interval: interrupt and isochronous transfers only
  AppendU32(bytes, 0);  // start frame: isochronous only
  AppendU32(bytes, (event.endpoint & kDirectionIn) != 0 ? kUrbDirIn : 0);
  AppendU32(bytes, 0);  // isochronous descriptors
}

}  // namespace ferrolt::capture
