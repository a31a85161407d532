#include "admin/RetrieveVersion.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "transfer/Reports.h"

namespace ferrolt {

namespace {

constexpr const char* kVersionRequest = "Version Retrieval";

void PrintModeLines(bool verbose) {
  std::printf(verbose ? "VERBOSE MODE DETECTED!\n" : "NONVERBOSE MODE DETECTED!\n");
  std::printf("SPI SUPPORT IS TURNED ON!\n");
}

// True when the reply carried a version.
bool ReportReply(const Block& reply, IVersionInfoReadyCallBack* version) {
  if (version != nullptr) version->VersionInfoReadyCallBack("Read data :" + BytesToHex(reply.data(), kBlockSize));
  if (PacketTypeOf(reply.data()) != static_cast<uint8_t>(PacketType::Version)) return false;
  if (!VerifyPacketCrc(reply.data())) return false;
  if (version != nullptr) version->VersionInfoReadyCallBack("Version - " + PayloadText(reply.data()));
  return true;
}

}  // namespace

void RetrieveVersion(const OperationContext& op, IVersionInfoReadyCallBack* version, bool verbose) {
  PrintModeLines(verbose);
  const Block request = BuildTextPacket(PacketType::Version, kVersionRequest);
  Block reply{};
  const auto start = std::chrono::steady_clock::now();
  // A failed read sends the request again: the device may have missed it.
  for (;;) {
    if (op.link.WritePacket(request.data(), kBlockSize, op.log) != TransferStatus::Done) {
      if (op.log != nullptr) op.log->LogMessageCallBack("Failed in writing 'Version Retrieval' to device.");
      op.End();
      return;
    }
    if (op.link.ReadPacketBlocking(reply.data(), kBlockSize, op.log) == 0) break;
    const bool silent = std::chrono::steady_clock::now() - start >= limits::kDeviceSilenceLimit;
    if (silent || op.TearingDown()) {
      if (silent) op.ReportDeviceSilence();
      op.End();
      return;
    }
    std::this_thread::sleep_for(limits::kFailedReadPause);
  }
  const bool versionCame = ReportReply(reply, version);
  ReportProgress(op.progress, kProgressDone);
  versionCame ? op.EndDone() : op.End();
}

}  // namespace ferrolt
