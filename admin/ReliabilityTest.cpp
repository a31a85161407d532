// The Operational Reliability Test: the device runs it by itself; the tool
// only starts and ends it, one ORT packet each.
#include <cstdio>

#include "admin/DeviceAdmin.h"
#include "link/DevicePacket.h"

namespace ferrolt {

namespace {

constexpr const char* kOrtEnd = "ort end";

}  // namespace

void DeviceAdmin::StartOrt(IProgressChangeCallBack* progress, ILogMessageCallBack* log, char* ortString) {
  // Copied unchanged: a '%' in the ORT string is an ordinary character.
  const Block packet = BuildTextPacket(PacketType::Ort, ortString != nullptr ? ortString : "");
  SendCommandBlock(packet.data(), "Sent ORT message to device successfully.", "Failed to send ORT message to device.",
                   "the ORT message", progress, log);
}

void DeviceAdmin::EndOrt(IProgressChangeCallBack* progress, ILogMessageCallBack* log, bool verbose) {
  std::printf(verbose ? "VERBOSE MODE DETECTED!\n" : "NONVERBOSE MODE DETECTED!\n");
  const Block packet = BuildTextPacket(PacketType::Ort, kOrtEnd);
  SendCommandBlock(packet.data(), "Sent 'ort end' to device successfully.", "Failed in writing 'ort end' to device.",
                   "'ort end'", progress, log);
}

}  // namespace ferrolt
