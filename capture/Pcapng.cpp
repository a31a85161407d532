#include "capture/Pcapng.h"

#include <algorithm>

#include "capture/LittleEndian.h"

namespace ferrolt::capture {
namespace {

constexpr uint32_t kSectionHeaderType = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescriptionType = 1;
constexpr uint32_t kEnhancedPacketType = 6;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kMajorVersion = 1;
constexpr uint16_t kMinorVersion = 0;
// The section's length is not known while it is written.
constexpr uint64_t kUnknownSectionLength = ~uint64_t{0};
// What dumpcap takes by default; every packet of ours is far shorter.
constexpr uint32_t kSnapLength = 262144;
constexpr uint16_t kEndOfOptions = 0;
constexpr uint16_t kApplicationOption = 4;    // shb_userappl
constexpr uint16_t kInterfaceNameOption = 2;  // if_name
constexpr uint32_t kInterfaceId = 0;
// An enhanced packet block's fields besides its packet: type, total length,
// interface, timestamp (two words), captured and original lengths, and the
// total length again after the packet.
constexpr size_t kEnhancedPacketFraming = 8 * sizeof(uint32_t);
constexpr size_t kAlignment = 4;

size_t Padded(size_t length) { return (length + kAlignment - 1) / kAlignment * kAlignment; }

void AppendPadding(std::vector<uint8_t>& bytes, size_t length) { bytes.resize(bytes.size() + Padded(length) - length); }

// A text option, padded to 32 bits; options end with kEndOfOptions.
void AppendTextOption(std::vector<uint8_t>& bytes, uint16_t code, const std::string& text) {
  AppendU16(bytes, code);
  AppendU16(bytes, static_cast<uint16_t>(text.size()));
  bytes.insert(bytes.end(), text.begin(), text.end());
  AppendPadding(bytes, text.size());
}

void AppendEndOfOptions(std::vector<uint8_t>& bytes) {
  AppendU16(bytes, kEndOfOptions);
  AppendU16(bytes, 0);
}

// A block whose body is what body() appends: its type and total length
// before the body, the total length again after it.
template <typename Body>
void AppendBlock(std::vector<uint8_t>& bytes, uint32_t type, Body body) {
  const size_t start = bytes.size();
  AppendU32(bytes, type);
  const size_t lengthAt = bytes.size();
  AppendU32(bytes, 0);  // known once the body is in
  body();
  const auto total = static_cast<uint32_t>(bytes.size() - start + sizeof(uint32_t));
  AppendU32(bytes, total);
  std::copy(bytes.end() - sizeof(uint32_t), bytes.end(), bytes.begin() + static_cast<std::ptrdiff_t>(lengthAt));
}

}  // namespace

void AppendSectionHeader(std::vector<uint8_t>& bytes, const std::string& application) {
  AppendBlock(bytes, kSectionHeaderType, [&] {
    AppendU32(bytes, kByteOrderMagic);
    AppendU16(bytes, kMajorVersion);
    AppendU16(bytes, kMinorVersion);
    AppendU64(bytes, kUnknownSectionLength);
    AppendTextOption(bytes, kApplicationOption, application);
    AppendEndOfOptions(bytes);
  });
}

void AppendInterfaceDescription(std::vector<uint8_t>& bytes, uint16_t linkType, const std::string& name) {
  AppendBlock(bytes, kInterfaceDescriptionType, [&] {
    AppendU16(bytes, linkType);
    AppendU16(bytes, 0);  // reserved
    AppendU32(bytes, kSnapLength);
    AppendTextOption(bytes, kInterfaceNameOption, name);
    AppendEndOfOptions(bytes);
  });
}

// Written in place, in one piece: this runs for every packet.
void AppendEnhancedPacket(std::vector<uint8_t>& bytes, uint64_t microsecondsSinceEpoch, std::span<const uint8_t> header,
                          std::span<const uint8_t> data) {
  const size_t captured = header.size() + data.size();
  const auto total = static_cast<uint32_t>(kEnhancedPacketFraming + Padded(captured));
  const size_t start = bytes.size();
  bytes.resize(start + total);
  uint8_t* at = bytes.data() + start;
  for (const uint32_t word :
       {kEnhancedPacketType, total, kInterfaceId, static_cast<uint32_t>(microsecondsSinceEpoch >> 32),
        static_cast<uint32_t>(microsecondsSinceEpoch & 0xFFFFFFFF), static_cast<uint32_t>(captured),
        static_cast<uint32_t>(captured)}) {
    StoreU32(at, word);
    at += sizeof word;
  }
  at = std::copy(header.begin(), header.end(), at);
  at = std::copy(data.begin(), data.end(), at);
  std::fill(at, bytes.data() + start + total - sizeof total, 0);
  StoreU32(bytes.data() + start + total - sizeof total, total);
}

}  // namespace ferrolt::capture
