#include "admin/ReliabilityTest.h"

#include <cstdio>

#include "admin/SendCommandBlock.h"
#include "link/DevicePacket.h"

namespace ferrolt {

namespace {

constexpr const char* kOrtEnd = "ort end";

}  // namespace

void StartOrt(const OperationContext& op, const char* ortString) {
  // Copied unchanged: a '%' in the ORT string is an ordinary character.
  const Block packet = BuildTextPacket(PacketType::Ort, ortString != nullptr ? ortString : "");
  SendCommandBlock(op, packet.data(), "Sent ORT message to device successfully.",
                   "Failed to send ORT message to device.", "the ORT message");
}

void EndOrt(const OperationContext& op, bool verbose) {
  std::printf(verbose ? "VERBOSE MODE DETECTED!\n" : "NONVERBOSE MODE DETECTED!\n");
  const Block packet = BuildTextPacket(PacketType::Ort, kOrtEnd);
  SendCommandBlock(op, packet.data(), "Sent 'ort end' to device successfully.",
                   "Failed in writing 'ort end' to device.", "'ort end'");
}

}  // namespace ferrolt
