#include "admin/ReliabilityTest.h"

#include "admin/SendCommandBlock.h"
#include "link/DevicePacket.h"

namespace ferrolt {

namespace {

constexpr const char* kOrtEnd = "ort end";

}  // namespace

void StartOrt(const OperationContext& op, const char* ortString) {
  // Copied unchanged: a '%' in the ORT string is an ordinary character.
  SendCommandBlock(op, BuildTextPacket(PacketType::Ort, ortString != nullptr ? ortString : ""),
                   "Sent ORT message to device successfully.",
                   {.subject = "the ORT message", .failureLine = "Failed to send ORT message to device."});
}

void EndOrt(const OperationContext& op, bool verbose) {
  op.console.Print(verbose ? "VERBOSE MODE DETECTED!\n" : "NONVERBOSE MODE DETECTED!\n");
  SendCommandBlock(op, BuildTextPacket(PacketType::Ort, kOrtEnd), "Sent 'ort end' to device successfully.",
                   {.subject = "'ort end'", .failureLine = "Failed in writing 'ort end' to device."});
}

}  // namespace ferrolt
