// How the two downloads read the device's replies: a start reply, an end
// reply, or file data, told apart by number 0 and the reply's marker text.
#pragma once

#include <cstdint>
#include <string>

#include "link/DevicePacket.h"

namespace ferrolt {

// The marker texts of one kind of download and where the start reply's
// numbers begin (after the marker and one separator).
struct ReplyMarkers {
  const char* start;
  const char* end;
  size_t numbersAt;
};

inline constexpr ReplyMarkers kFileDownloadMarkers{"starting download", "ending download", 18};
inline constexpr ReplyMarkers kLogDownloadMarkers{"starting logs", "ending logs", 14};

enum class ReplyKind { Start, End, Data };

// A packet with number 0 is a start or end reply when its text begins with
// the marker (ASCII case ignored); every other packet is data.
ReplyKind ClassifyReply(const uint8_t* block, const ReplyMarkers& markers);

// Reads "%d  %d" from the start reply's text at markers.numbersAt; a number
// that cannot be read keeps the value it had. True when both were read.
bool ReadStartNumbers(const uint8_t* block, const ReplyMarkers& markers, int32_t& size, int32_t& total);

// The payload bytes a data packet carries: its length byte, cut to 57.
size_t DataLength(const uint8_t* block);

}  // namespace ferrolt
