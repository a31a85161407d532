#include "platform/UsbInterfacePath.h"

#include <cstdio>

#include "platform/AsciiText.h"

namespace ferrolt::platform {
namespace {

// The device interface class every listed path ends with.
constexpr const char* kUsbDeviceClassGuid = "{A5DCBF10-6530-11D2-901F-00C04FB951ED}";
constexpr size_t kIdsBufferSize = 64;
constexpr size_t kIdDigits = 4;
constexpr size_t kInterfaceDigits = 2;

// Reads a lower-cased path from front to back, one expected piece at a time.
class PathReader {
 public:
  explicit PathReader(const std::string& text) : text_(text) {}

  bool Literal(const std::string& expected) {
    if (text_.compare(at_, expected.size(), expected) != 0) return false;
    at_ += expected.size();
    return true;
  }

  // Exactly digits hexadecimal digits.
  bool Hex(size_t digits, unsigned& value) {
    if (ReadHexDigits(text_.c_str() + at_, digits, value) != digits) return false;
    at_ += digits;
    return true;
  }

  size_t Position() const { return at_; }

 private:
  const std::string& text_;
  size_t at_ = 0;
};

}  // namespace

std::string FormatInterfacePath(const UsbInterfaceId& id, const std::string& instance) {
  char ids[kIdsBufferSize];
  std::snprintf(ids, sizeof ids, "\\\\?\\USB#VID_%04X&PID_%04X&MI_%02X#", id.vendorId, id.productId,
                id.interfaceNumber);
  return std::string(ids) + instance + "#" + kUsbDeviceClassGuid;
}

std::optional<ParsedInterfacePath> ParseInterfacePath(const std::string& path) {
  const std::string lowered = AsciiLowered(path);
  const std::string suffix = "#" + AsciiLowered(kUsbDeviceClassGuid);
  PathReader reader(lowered);
  unsigned vendorId = 0;
  unsigned productId = 0;
  unsigned interfaceNumber = 0;
  if (!reader.Literal("\\\\?\\usb#vid_") || !reader.Hex(kIdDigits, vendorId) || !reader.Literal("&pid_") ||
      !reader.Hex(kIdDigits, productId) || !reader.Literal("&mi_") || !reader.Hex(kInterfaceDigits, interfaceNumber) ||
      !reader.Literal("#"))
    return std::nullopt;
  const size_t instanceStart = reader.Position();
  if (lowered.size() < instanceStart + suffix.size()) return std::nullopt;
  if (lowered.compare(lowered.size() - suffix.size(), suffix.size(), suffix) != 0) return std::nullopt;

  ParsedInterfacePath parsed;
  parsed.id.vendorId = static_cast<uint16_t>(vendorId);
  parsed.id.productId = static_cast<uint16_t>(productId);
  parsed.id.interfaceNumber = static_cast<uint8_t>(interfaceNumber);
  parsed.instance = path.substr(instanceStart, lowered.size() - suffix.size() - instanceStart);
  return parsed;
}

bool SamePath(const std::string& left, const std::string& right) { return AsciiLowered(left) == AsciiLowered(right); }

}  // namespace ferrolt::platform
