#include "transfer/DownloadReply.h"

#include <algorithm>
#include <cstdio>

namespace ferrolt {

ReplyKind ClassifyReply(const uint8_t* block, const ReplyMarkers& markers) {
  if (PacketNumber(block) != 0) return ReplyKind::Data;
  const std::string text = PayloadText(block);
  if (StartsWithIgnoringCase(text, markers.start)) return ReplyKind::Start;
  if (StartsWithIgnoringCase(text, markers.end)) return ReplyKind::End;
  return ReplyKind::Data;
}

bool ReadStartNumbers(const uint8_t* block, const ReplyMarkers& markers, int32_t& size, int32_t& total) {
  const std::string text = PayloadText(block);
  const char* numbers = text.c_str() + std::min(markers.numbersAt, text.size());
  int first = size;
  int second = total;
  // sscanf leaves an argument it could not convert untouched.
  const int read = std::sscanf(numbers, "%d  %d", &first, &second);
  size = first;
  total = second;
  return read == 2;
}

size_t DataLength(const uint8_t* block) { return std::min<size_t>(PacketLength(block), kPayloadSize); }

}  // namespace ferrolt
