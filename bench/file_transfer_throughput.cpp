// File upload and download throughput against a spawned ferrolt-devsim over
// the emulator link, each beside a raw pump of as many 64-byte blocks over the
// same link (writes for the upload, reads of the device's stream for the
// download, with the link's queue of reads), the host CPU time per packet of
// the download, and the peak memory of a spawned ferrolt for a small and a
// large file, which must not grow with the file.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>

#include "admin/DeviceAdmin.h"
#include "bench/support/BenchSupport.h"
#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "platform/TracingBackend.h"
#include "platform/emulator/EmulatorBackend.h"

namespace ferrolt::bench {
namespace {

constexpr size_t kThroughputFile = size_t{2} << 20;
constexpr size_t kDownloadFile = size_t{16} << 20;
constexpr size_t kSmallFile = size_t{1} << 20;
constexpr size_t kLargeFile = size_t{16} << 20;

bool WaitUntilIdle(DeviceAdmin& admin) {
  const auto deadline = Clock::now() + kRunLimit;
  while (admin.IsOperationRunning()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPollStep);
  }
  return true;
}

// Seconds of one upload's data phase (the fixed pause after the start
// command taken out).
double TimeUpload(const std::string& endpoint, const std::string& name) {
  DeviceAdmin admin(platform::CreateEmulatorBackend(endpoint));
  NullLog log;
  QuietStdout quiet;
  const auto start = Clock::now();
  admin.UploadFileAsync(name, nullptr, &log);
  const bool ended = WaitUntilIdle(admin);
  const double taken = Seconds(Clock::now() - start) - Seconds(limits::kReconnectPause);
  admin.Shutdown(kShutdownBound);
  return ended ? taken : -1;
}

struct Timed {
  double seconds = -1;
  double cpuSeconds = 0;
};

// With FERROLT_TRACE set, the download is timed with its capture written.
Timed TimeDownload(const std::string& endpoint, const std::string& devicePath, const fs::path& savePath) {
  DeviceAdmin admin(platform::TracedWhenAsked(platform::CreateEmulatorBackend(endpoint)));
  NullLog log;
  QuietStdout quiet;
  const double cpuStart = CpuSeconds();
  const auto start = Clock::now();
  admin.DownloadFileAsync(devicePath, savePath.string(), nullptr, &log);
  const bool ended = WaitUntilIdle(admin);
  Timed timed;
  if (ended) timed.seconds = Seconds(Clock::now() - start);
  timed.cpuSeconds = CpuSeconds() - cpuStart;
  admin.Shutdown(kShutdownBound);
  return timed;
}

struct RawPump {
  double writeSeconds = -1;
  double readSeconds = -1;
  double readCpuSeconds = 0;
};

// count blocks written one by one, then readCount blocks of the device's
// stream of devicePath read, with nothing done to them.
RawPump PumpRaw(const std::string& endpoint, int count, int readCount, const std::string& devicePath) {
  auto backend = platform::CreateEmulatorBackend(endpoint);
  platform::Event cancel;
  UsbLink link(*backend, cancel);
  QuietStdout quiet;  // the link prints the device speed
  RawPump pump;
  if (!link.ConnectDevice(kProductId, kVendorId, nullptr)) return pump;
  Block block{};
  auto start = Clock::now();
  for (int i = 0; i < count; ++i) link.WritePacket(block.data(), kBlockSize, nullptr);
  pump.writeSeconds = Seconds(Clock::now() - start);
  link.CloseDevice();
  if (!link.ConnectDevice(kProductId, kVendorId, nullptr)) return pump;
  const Block request = BuildTextPacket(PacketType::Download, "Starting download " + devicePath);
  const double cpuStart = CpuSeconds();
  start = Clock::now();
  link.WritePacket(request.data(), kBlockSize, nullptr);
  for (int i = 0; i < readCount; ++i) {
    if (link.ReadPacketBlocking(block.data(), kBlockSize, nullptr) != 0) return pump;
  }
  pump.readSeconds = Seconds(Clock::now() - start);
  pump.readCpuSeconds = CpuSeconds() - cpuStart;
  link.CloseDevice();
  return pump;
}

// The tool's throughput as a share of the raw pump's.
double Ratio(double toolSeconds, double rawSeconds) {
  return toolSeconds > 0 && rawSeconds > 0 ? rawSeconds / toolSeconds : 0;
}

void PrintThroughput(const char* label, double seconds, double mib) {
  std::printf("  %-34s %8.2f s %8.0f KiB/s%s\n", label, seconds, mib * kKiB / seconds, seconds > 0 ? "" : "  (FAILED)");
}

int Run(const fs::path& work) {
  DevsimProcess device(work);
  if (!device.Ready()) {
    std::fprintf(stderr, "ferrolt-devsim did not start\n");
    return 1;
  }
  const std::string endpoint = device.Endpoint();
  const fs::path deviceTmp = device.Root() / "tmp";
  // The upload names the file by its path; run where it lies.
  fs::current_path(work);
  WriteRandomFile(work / "up.bin", kThroughputFile, 1);
  WriteRandomFile(deviceTmp / "down.bin", kDownloadFile, 2);
  WriteRandomFile(work / "small.bin", kSmallFile, 3);
  WriteRandomFile(work / "large.bin", kLargeFile, 4);
  WriteRandomFile(deviceTmp / "small.bin", kSmallFile, 5);
  WriteRandomFile(deviceTmp / "large.bin", kLargeFile, 6);

  const int packets = static_cast<int>((kThroughputFile + kPayloadSize - 1) / kPayloadSize);
  const int downloadPackets = static_cast<int>((kDownloadFile + kPayloadSize - 1) / kPayloadSize);
  const double mib = static_cast<double>(kThroughputFile) / (kKiB * kKiB);
  const double downloadMib = static_cast<double>(kDownloadFile) / (kKiB * kKiB);
  const double upload = TimeUpload(endpoint, "up.bin");
  const Timed download = TimeDownload(endpoint, "/tmp/down.bin", work / "down.out");
  const RawPump raw = PumpRaw(endpoint, packets, downloadPackets, "/tmp/down.bin");

  std::printf("file_transfer_throughput (%zu-byte upload, %d packets)\n", kThroughputFile, packets);
  PrintThroughput("upload", upload, mib);
  PrintThroughput("raw write pump", raw.writeSeconds, mib);
  std::printf("  %-34s %8.2f\n", "upload / raw", Ratio(upload, raw.writeSeconds));
  std::printf("download (%zu-byte file, %d packets, %zu reads queued)\n", kDownloadFile, downloadPackets,
              limits::kReadsQueued);
  PrintThroughput("download", download.seconds, downloadMib);
  PrintThroughput("raw read pump", raw.readSeconds, downloadMib);
  std::printf("  %-34s %8.0f packets/s %6.1f us CPU/packet (target <= %.1f)\n", "download",
              downloadPackets / download.seconds, download.cpuSeconds * 1e6 / downloadPackets, kCpuPerPacketTarget);
  std::printf("  %-34s %8.0f packets/s %6.1f us CPU/packet\n", "raw read pump", downloadPackets / raw.readSeconds,
              raw.readCpuSeconds * 1e6 / downloadPackets);
  std::printf("  %-34s %8.2f\n", "download / raw", Ratio(download.seconds, raw.readSeconds));

  const std::vector<std::string> env{"FERROLT_EMULATOR=" + endpoint};
  const long uploadSmall = PeakRssOf({FERROLT_BIN, "upload", "small.bin"}, env);
  const long uploadLarge = PeakRssOf({FERROLT_BIN, "upload", "large.bin"}, env);
  const long downloadSmall = PeakRssOf({FERROLT_BIN, "download", "/tmp/small.bin", "small.out"}, env);
  const long downloadLarge = PeakRssOf({FERROLT_BIN, "download", "/tmp/large.bin", "large.out"}, env);
  std::printf("  %-34s %8ld KiB\n", "ferrolt peak RSS, upload 1 MiB", uploadSmall);
  std::printf("  %-34s %8ld KiB\n", "ferrolt peak RSS, upload 16 MiB", uploadLarge);
  std::printf("  %-34s %8ld KiB\n", "ferrolt peak RSS, download 1 MiB", downloadSmall);
  std::printf("  %-34s %8ld KiB\n", "ferrolt peak RSS, download 16 MiB", downloadLarge);
  return upload > 0 && download.seconds > 0 && raw.writeSeconds > 0 && raw.readSeconds > 0 ? 0 : 1;
}

}  // namespace
}  // namespace ferrolt::bench

int main() {
  namespace fs = std::filesystem;
  const fs::path work = fs::temp_directory_path() / ("ferrolt-bench-files-" + std::to_string(getpid()));
  fs::create_directories(work);
  const int status = ferrolt::bench::Run(work);
  std::error_code ignored;
  fs::current_path(fs::temp_directory_path(), ignored);
  fs::remove_all(work, ignored);
  return status;
}
