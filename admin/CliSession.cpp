// The CLI session: switching the device's CLI mode on and off, and running
// one shell command with its output printed as it arrives.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>

#include "admin/CliSession.h"

#include "link/DevicePacket.h"
#include "link/Limits.h"

namespace ferrolt {

namespace {

constexpr const char* kCliOn = "CLI On";
constexpr const char* kCliOff = "CLI Off";
// The device closes a command's output with "ending testdata".
constexpr const char* kOutputEnd = "ending test";

// The first length bytes of an output packet, never more than its payload.
void PrintOutput(const Block& packet) {
  char text[kTextBufferSize] = {};
  const size_t length = std::min<size_t>(PacketLength(packet.data()), kPayloadSize);
  std::memcpy(text, packet.data() + kPayloadOffset, length);
  // Device text is printed as text: a '%' in it is no conversion.
  std::printf("%s", text);
  std::fflush(stdout);
}

}  // namespace

void StartCli(const OperationContext& op) {
  if (!op.Connect()) {
    ReportOpenFailure();
    op.End();
    return;
  }
  std::printf("SPI SUPPORT IS TURNED ON!\n");
  const Block packet = BuildTextPacket(PacketType::Cli, kCliOn);
  if (op.link.WritePacket(packet.data(), kBlockSize, op.log) == TransferStatus::Done) {
    if (op.log != nullptr) op.log->LogMessageCallBack("STARTING CLI MODE...\n");
  } else {
    // Not resent: the device may have switched already.
    op.Reconnect();
  }
  op.End();
}

void StopCli(const OperationContext& op) {
  if (!op.Reconnect()) {
    op.End();
    return;
  }
  const Block packet = BuildTextPacket(PacketType::Cli, kCliOff);
  if (op.link.WritePacket(packet.data(), kBlockSize, op.log) == TransferStatus::Done) {
    if (op.log != nullptr) op.log->LogMessageCallBack("Ending CLI Mode now.");
  } else {
    op.Reconnect();
  }
  op.End();
}

void SendCliCommand(const OperationContext& op, const std::string& command) {
  if (!op.Connect() || !op.Running()) {
    op.End();
    return;
  }
  // A command of 57 bytes or more fills the payload without a terminator.
  const Block packet = BuildTextPacket(PacketType::Cli, command);
  if (op.link.WritePacket(packet.data(), kBlockSize, op.log) != TransferStatus::Done) {
    if (op.log != nullptr) op.log->LogMessageCallBack("Failed in writing CLI command to device.");
    if (!op.Reconnect()) {
      op.End();
      return;
    }
  }
  std::printf("\n");
  std::fflush(stdout);
  // No bound: a command may run long, and Ctrl+C ends the run. Only process
  // teardown stops the loop early.
  Block block{};
  while (!op.TearingDown()) {
    if (op.link.ReadPacketBlocking(block.data(), kBlockSize, op.log) != 0) {
      std::this_thread::sleep_for(limits::kFailedReadPause);
      continue;
    }
    if (PacketTypeOf(block.data()) != static_cast<uint8_t>(PacketType::Cli)) continue;
    if (!VerifyPacketCrc(block.data())) continue;
    if (StartsWithIgnoringCase(PayloadText(block.data()), kOutputEnd)) break;
    PrintOutput(block);
  }
  op.End();
}

}  // namespace ferrolt
