// The CLI session: switching the device's CLI mode on and off, and running
// one shell command with its output printed as it arrives.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>

#include "admin/DeviceAdmin.h"
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

void DeviceAdmin::StartCli(IProgressChangeCallBack*, ILogMessageCallBack* log) {
  if (!ConnectDefaultDevice(log)) {
    ReportOpenFailure();
    EndOperation();
    return;
  }
  std::printf("SPI SUPPORT IS TURNED ON!\n");
  const Block packet = BuildTextPacket(PacketType::Cli, kCliOn);
  if (Link.WritePacket(packet.data(), kBlockSize, log) == TransferStatus::Done) {
    if (log != nullptr) log->LogMessageCallBack("STARTING CLI MODE...\n");
  } else {
    // Not resent: the device may have switched already.
    Reconnect(log);
  }
  EndOperation();
}

void DeviceAdmin::StopCli(IProgressChangeCallBack*, ILogMessageCallBack* log) {
  if (!Reconnect(log)) {
    EndOperation();
    return;
  }
  const Block packet = BuildTextPacket(PacketType::Cli, kCliOff);
  if (Link.WritePacket(packet.data(), kBlockSize, log) == TransferStatus::Done) {
    if (log != nullptr) log->LogMessageCallBack("Ending CLI Mode now.");
  } else {
    Reconnect(log);
  }
  EndOperation();
}

void DeviceAdmin::SendCliCommand(std::string command, IProgressChangeCallBack*, ILogMessageCallBack* log) {
  if (!ConnectDefaultDevice(log) || !OperationRunning.load()) {
    EndOperation();
    return;
  }
  // A command of 57 bytes or more fills the payload without a terminator.
  const Block packet = BuildTextPacket(PacketType::Cli, command);
  if (Link.WritePacket(packet.data(), kBlockSize, log) != TransferStatus::Done) {
    if (log != nullptr) log->LogMessageCallBack("Failed in writing CLI command to device.");
    if (!Reconnect(log)) {
      EndOperation();
      return;
    }
  }
  std::printf("\n");
  std::fflush(stdout);
  // No bound: a command may run long, and Ctrl+C ends the run. Only process
  // teardown stops the loop early.
  Block block{};
  while (!Reader.StopRequested.load()) {
    if (Link.ReadPacketBlocking(block.data(), kBlockSize, log) != 0) {
      std::this_thread::sleep_for(limits::kFailedReadPause);
      continue;
    }
    if (PacketTypeOf(block.data()) != static_cast<uint8_t>(PacketType::Cli)) continue;
    if (!VerifyPacketCrc(block.data())) continue;
    if (StartsWithIgnoringCase(PayloadText(block.data()), kOutputEnd)) break;
    PrintOutput(block);
  }
  EndOperation();
}

}  // namespace ferrolt
