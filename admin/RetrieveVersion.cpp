#include "admin/RetrieveVersion.h"

#include <chrono>
#include <thread>

#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "link/Reporting.h"
#include "transfer/Progress.h"

namespace ferrolt {

namespace {

constexpr const char* kVersionRequest = "Version Retrieval";

void PrintModeLines(ConsoleSink& console, bool verbose) {
  console.Print(verbose ? "VERBOSE MODE DETECTED!\n" : "NONVERBOSE MODE DETECTED!\n");
  console.Print("SPI SUPPORT IS TURNED ON!\n");
}

// True when the reply carried a version.
bool ReportReply(const Block& reply, IVersionInfoReadyCallBack& version, ConsoleSink& console) {
  version.VersionInfoReadyCallBack("Read data :" + BytesToHex(reply.data(), kBlockSize));
  if (PacketTypeOf(reply.data()) != static_cast<uint8_t>(PacketType::Version)) return false;
  if (!VerifyPacketCrc(reply.data(), console)) return false;
  version.VersionInfoReadyCallBack(std::string(kVersionPrefix) + PayloadText(reply.data()));
  return true;
}

enum class Asked { Answered, NotWritten, Silent };

// Writes the request and reads the reply; a failed read sends the request
// again, since the device may have missed it, until the device has been
// silent for limits::kDeviceSilenceLimit or the process tears down.
Asked AskForVersion(const OperationContext& op, Block& reply) {
  const Block request = BuildTextPacket(PacketType::Version, kVersionRequest);
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    if (op.link.WritePacket(request.data(), kBlockSize, &op.log) != TransferStatus::Done) {
      LogText(op.log, "Failed in writing 'Version Retrieval' to device.");
      return Asked::NotWritten;
    }
    if (op.link.ReadPacketBlocking(reply.data(), kBlockSize, &op.log) == 0) return Asked::Answered;
    if (op.TearingDown()) return Asked::Silent;
    if (std::chrono::steady_clock::now() - start >= limits::kDeviceSilenceLimit) {
      op.ReportDeviceSilence();
      return Asked::Silent;
    }
    std::this_thread::sleep_for(limits::kFailedReadPause);
  }
}

}  // namespace

void RetrieveVersion(const OperationContext& op, IVersionInfoReadyCallBack& version, bool verbose) {
  PrintModeLines(op.console, verbose);
  Block reply{};
  if (AskForVersion(op, reply) != Asked::Answered) {
    op.End();
    return;
  }
  const bool versionCame = ReportReply(reply, version, op.console);
  op.progress.ProgressChangeCallBack(kProgressDone);
  versionCame ? op.EndDone() : op.End();
}

}  // namespace ferrolt
