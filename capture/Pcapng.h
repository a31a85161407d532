// The blocks of a pcapng file (the pcapng draft, draft-ietf-opsawg-pcapng):
// one section header, one interface description, then an enhanced packet
// block per packet. Written low byte first; the section header's byte-order
// magic tells readers so.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace ferrolt::capture {

// LINKTYPE_USB_LINUX_MMAPPED: each packet is usbmon's 64-byte header and the
// data that follows it (the tcpdump.org link-layer header types list).
inline constexpr uint16_t kLinkTypeUsbLinuxMmapped = 220;

// The section header; application names the program that wrote the file.
void AppendSectionHeader(std::vector<uint8_t>& bytes, const std::string& application);
// The one interface of the section, by its link type and name, with
// timestamps in microseconds (the default resolution).
void AppendInterfaceDescription(std::vector<uint8_t>& bytes, uint16_t linkType, const std::string& name);
// One packet, captured whole, on interface 0: its link-layer header, then
// its data.
void AppendEnhancedPacket(std::vector<uint8_t>& bytes, uint64_t microsecondsSinceEpoch, std::span<const uint8_t> header,
                          std::span<const uint8_t> data);

}  // namespace ferrolt::capture
