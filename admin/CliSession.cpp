// The CLI session: switching the device's CLI mode on and off, and running
// one shell command with its output printed as it arrives.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <optional>
#include <thread>

#include "admin/CliSession.h"

#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "link/Reporting.h"
#include "transfer/ReconnectPolicy.h"

namespace ferrolt {

namespace {

constexpr const char* kCliOn = "CLI On";
constexpr const char* kCliOff = "CLI Off";
// The device closes a command's output with "ending testdata".
constexpr const char* kOutputEnd = "ending test";

// The first length bytes of an output packet, never more than its payload;
// printing stops at a zero among them.
void PrintOutput(const Block& packet, ConsoleSink& console) {
  char text[kTextBufferSize] = {};
  const size_t length = std::min<size_t>(PacketLength(packet.data()), kPayloadSize);
  std::memcpy(text, packet.data() + kPayloadOffset, length);
  console.Print(text);
  console.Flush();
}

void ReportLinkLost(ILogMessageCallBack& log) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limits::kLinkLostLimit);
  log.LogMessageCallBack("Error: Reading from the device has failed for %d seconds; the device is gone.",
                         static_cast<int>(seconds.count()));
}

// One mode switch: written once; a failed write reopens the link without
// sending again, since the device may have switched already.
void SwitchMode(const OperationContext& op, const char* text, const char* switchedLine) {
  const SendResult sent =
      SendWithReconnect(op, BuildTextPacket(PacketType::Cli, text), {.subject = text, .resend = false});
  if (sent == SendResult::Written) {
    LogText(op.log, switchedLine);
    op.EndDone();
    return;
  }
  op.End();
}

// Reads until the device's end text; false when the link is gone or the
// process tears down. No bound while the device is there: a command may run
// long, and Ctrl+C ends the run.
bool PrintCommandOutput(const OperationContext& op) {
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
        return false;
      }
      std::this_thread::sleep_for(limits::kFailedReadPause);
      continue;
    }
    if (PacketTypeOf(block.data()) != static_cast<uint8_t>(PacketType::Cli)) continue;
    if (!VerifyPacketCrc(block.data(), op.console)) continue;
    if (StartsWithIgnoringCase(PayloadText(block.data()), kOutputEnd)) return true;
    PrintOutput(block, op.console);
  }
  return false;
}

}  // namespace

void StartCli(const OperationContext& op) {
  if (!op.Connect()) {
    op.ReportOpenFailure();
    op.End();
    return;
  }
  op.console.Print("SPI SUPPORT IS TURNED ON!\n");
  SwitchMode(op, kCliOn, "STARTING CLI MODE...\n");
}

void StopCli(const OperationContext& op) {
  if (!op.Reconnect()) {
    op.End();
    return;
  }
  SwitchMode(op, kCliOff, "Ending CLI Mode now.");
}

void SendCliCommand(const OperationContext& op, const std::string& command) {
  if (!op.Connect() || !op.Running()) {
    op.End();
    return;
  }
  // A command of 57 bytes or more fills the payload without a terminator.
  // Not sent again after a failed write: the device may be running it.
  const SendResult sent =
      SendWithReconnect(op, BuildTextPacket(PacketType::Cli, command),
                        {.subject = "the CLI command", .failureLine = "Failed in writing CLI command to device.",
                         .resend = false});
  if (sent != SendResult::Written && sent != SendResult::Reopened) {
    op.End();
    return;
  }
  op.console.Print("\n");
  op.console.Flush();
  if (PrintCommandOutput(op)) {
    op.EndDone();
    return;
  }
  op.End();
}

}  // namespace ferrolt
