// The version exchange: one request, one reply, the version text to the
// version callback.
#include <chrono>
#include <cstdio>
#include <thread>

#include "admin/DeviceAdmin.h"
#include "admin/DeviceSilence.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"

namespace ferrolt {

namespace {

constexpr const char* kVersionRequest = "Version Retrieval";

void PrintModeLines(bool verbose) {
  std::printf(verbose ? "VERBOSE MODE DETECTED!\n" : "NONVERBOSE MODE DETECTED!\n");
  std::printf("SPI SUPPORT IS TURNED ON!\n");
}

void ReportReply(const Block& reply, IVersionInfoReadyCallBack* version) {
  if (version != nullptr) version->VersionInfoReadyCallBack("Read data :" + BytesToHex(reply.data(), kBlockSize));
  if (PacketTypeOf(reply.data()) != static_cast<uint8_t>(PacketType::Version)) return;
  if (!VerifyPacketCrc(reply.data())) return;
  if (version != nullptr) version->VersionInfoReadyCallBack("Version - " + PayloadText(reply.data()));
}

}  // namespace

void DeviceAdmin::RetrieveVersion(IVersionInfoReadyCallBack* version, IProgressChangeCallBack* progress,
                                  ILogMessageCallBack* log, bool verbose) {
  PrintModeLines(verbose);
  const Block request = BuildTextPacket(PacketType::Version, kVersionRequest);
  Block reply{};
  const auto start = std::chrono::steady_clock::now();
  // A failed read sends the request again: the device may have missed it.
  for (;;) {
    if (Link.WritePacket(request.data(), kBlockSize, log) != TransferStatus::Done) {
      if (log != nullptr) log->LogMessageCallBack("Failed in writing 'Version Retrieval' to device.");
      EndOperation();
      return;
    }
    if (Link.ReadPacketBlocking(reply.data(), kBlockSize, log) == 0) break;
    const bool silent = std::chrono::steady_clock::now() - start >= limits::kDeviceSilenceLimit;
    if (silent || Reader.StopRequested.load()) {
      if (silent) ReportDeviceSilence(log);
      EndOperation();
      return;
    }
    std::this_thread::sleep_for(limits::kFailedReadPause);
  }
  ReportReply(reply, version);
  if (progress != nullptr) progress->ProgressChangeCallBack(100);
  EndOperation();
}

}  // namespace ferrolt
