// The CLI session: switching the device's CLI mode on and off, and running
// one shell command with its output printed as it arrives.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
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

void ReportLinkLost(ILogMessageCallBack* log) {
  if (log == nullptr) return;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limits::kLinkLostLimit);
  log->LogMessageCallBack("Error: Reading from the device has failed for %d seconds; the device is gone.",
                          static_cast<int>(seconds.count()));
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
    op.EndDone();
    return;
  }
  // Not resent: the device may have switched already.
  op.Reconnect();
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
    op.EndDone();
    return;
  }
  op.Reconnect();
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
  // No bound while the device is there: a command may run long, and Ctrl+C
  // ends the run. A link that is gone ends it, as does process teardown.
  Block block{};
  std::optional<std::chrono::steady_clock::time_point> failingSince;
  while (!op.TearingDown()) {
    const TransferStatus read = op.link.ReadPacketWithStatus(block.data(), kBlockSize);
    if (read != TransferStatus::Failed) failingSince.reset();
    if (read != TransferStatus::Done) {
      const auto now = std::chrono::steady_clock::now();
      if (read == TransferStatus::Failed && !failingSince) failingSince = now;
      if (failingSince && now - *failingSince >= limits::kLinkLostLimit) {
        ReportLinkLost(op.log);
        break;
      }
      std::this_thread::sleep_for(limits::kFailedReadPause);
      continue;
    }
    if (PacketTypeOf(block.data()) != static_cast<uint8_t>(PacketType::Cli)) continue;
    if (!VerifyPacketCrc(block.data())) continue;
    if (StartsWithIgnoringCase(PayloadText(block.data()), kOutputEnd)) {
      op.EndDone();
      return;
    }
    PrintOutput(block);
  }
  op.End();
}

}  // namespace ferrolt
