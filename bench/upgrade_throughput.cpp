// Upgrade throughput against a spawned ferrolt-devsim over the emulator link,
// next to a raw pump of as many 64-byte blocks over the same link with the
// same window of writes in flight (and with one, as writes went before the
// window); the host CPU time per packet; and the peak memory of `ferrolt
// upgrade` for a small and a large bundle, which must not grow with the
// bundle.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "admin/DeviceAdmin.h"
#include "bench/support/BenchSupport.h"
#include "bench/support/UpgradePackets.h"
#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "link/WriteWindow.h"
#include "platform/TracingBackend.h"
#include "platform/emulator/EmulatorBackend.h"

namespace ferrolt::bench {
namespace {

constexpr size_t kThroughputBundle = size_t{16} << 20;
constexpr size_t kSmallBundle = size_t{1} << 20;
constexpr uint64_t kLargeBundle = uint64_t{256} << 20;
// The large bundle's run is stopped after this long: a tool that held the
// file in memory would have grown at its start.
constexpr milliseconds kLargeRunSlice{4000};
constexpr unsigned kSeed = 1;

struct Timed {
  double seconds = 0;
  double cpuSeconds = 0;
  bool ok = false;
};

// With FERROLT_TRACE set, the upgrade is timed with its capture written.
Timed TimeUpgrade(const std::string& endpoint, const fs::path& bundle) {
  DeviceAdmin admin(platform::TracedWhenAsked(platform::CreateEmulatorBackend(endpoint)));
  NullLog log;
  Timed timed;
  QuietStdout quiet;
  const double cpuStart = CpuSeconds();
  const auto start = Clock::now();
  admin.UpgradeBundleAsync(bundle.string(), nullptr, &log, false);
  while (admin.IsOperationRunning() && Clock::now() - start < kRunLimit) std::this_thread::sleep_for(kPollStep);
  timed.seconds = Seconds(Clock::now() - start);
  timed.cpuSeconds = CpuSeconds() - cpuStart;
  timed.ok = !admin.IsOperationRunning();
  admin.Shutdown(kShutdownBound);
  return timed;
}

// The upgrade's start text and then its data packets, written with up to
// window of them in flight.
Timed TimeRawPump(const std::string& endpoint, const fs::path& bundle, size_t window) {
  const std::vector<Block> packets = UpgradePackets(bundle);
  platform::Event cancel;
  auto backend = platform::CreateEmulatorBackend(endpoint);
  UsbLink link(*backend, cancel);
  Timed timed;
  QuietStdout quiet;  // the link prints the device speed
  if (!link.ConnectDevice(kProductId, kVendorId, nullptr)) return timed;
  const Block start = BuildRawTextBlock("Starting Upgrade " + std::to_string(fs::file_size(bundle)) + " " +
                                        std::to_string(packets.size()));
  if (link.WritePacket(start.data(), kBlockSize, nullptr) != TransferStatus::Done) return timed;
  WriteWindow writes(link, window);
  const double cpuStart = CpuSeconds();
  const auto startTime = Clock::now();
  size_t written = 0;
  for (size_t next = 0; next < packets.size() || !writes.Empty();) {
    if (next < packets.size() && !writes.Full()) {
      writes.Start(packets[next].data(), kBlockSize, 0);
      ++next;
      continue;
    }
    written += writes.AwaitOldest(nullptr).status == TransferStatus::Done;
  }
  timed.seconds = Seconds(Clock::now() - startTime);
  timed.cpuSeconds = CpuSeconds() - cpuStart;
  timed.ok = written == packets.size();
  link.CloseDevice();
  return timed;
}

double PerSecond(size_t packets, const Timed& timed) { return timed.seconds > 0 ? packets / timed.seconds : 0; }

double CpuMicrosPerPacket(size_t packets, const Timed& timed) {
  return timed.cpuSeconds * 1e6 / static_cast<double>(packets);
}

long PeakRssOfUpgrade(const std::string& endpoint, const fs::path& bundle, milliseconds stopAfter) {
  return PeakRssOf({FERROLT_BIN, "upgrade", bundle.string()}, {"FERROLT_EMULATOR=" + endpoint}, stopAfter);
}

int Run(const fs::path& dir) {
  DevsimProcess device(dir);
  if (!device.Ready()) {
    std::fprintf(stderr, "ferrolt-devsim did not start\n");
    return 1;
  }
  const fs::path bundle = dir / "bundle-16m.bin";
  WriteRandomFile(bundle, kThroughputBundle, kSeed);
  const size_t packets = (kThroughputBundle + kPayloadSize - 1) / kPayloadSize;

  const Timed upgrade = TimeUpgrade(device.Endpoint(), bundle);
  const Timed raw = TimeRawPump(device.Endpoint(), bundle, limits::kUpgradeWriteWindow);
  const Timed rawOne = TimeRawPump(device.Endpoint(), bundle, 1);

  const fs::path small = dir / "bundle-1m.bin";
  WriteRandomFile(small, kSmallBundle, kSeed);
  const fs::path large = dir / "bundle-256m.bin";
  std::ofstream(large, std::ios::binary).close();
  fs::resize_file(large, kLargeBundle);  // sparse: reads as zeros, costs no disk
  const long smallRss = PeakRssOfUpgrade(device.Endpoint(), small, milliseconds::zero());
  const long largeRss = PeakRssOfUpgrade(device.Endpoint(), large, kLargeRunSlice);

  const double ratio = raw.seconds > 0 && upgrade.seconds > 0 ? raw.seconds / upgrade.seconds : 0;
  std::printf("upgrade_throughput (%zu-byte bundle, %zu packets, window %zu)\n", kThroughputBundle, packets,
              limits::kUpgradeWriteWindow);
  std::printf("  %-28s %8.2f s %10.0f packets/s %8.0f KiB/s %6.1f us CPU/packet (target <= %.1f)%s\n", "upgrade",
              upgrade.seconds, PerSecond(packets, upgrade), kThroughputBundle / kKiB / upgrade.seconds,
              CpuMicrosPerPacket(packets, upgrade), kCpuPerPacketTarget, upgrade.ok ? "" : "  (FAILED)");
  std::printf("  %-28s %8.2f s %10.0f packets/s %6.1f us CPU/packet%s\n", "raw block pump, window", raw.seconds,
              PerSecond(packets, raw), CpuMicrosPerPacket(packets, raw), raw.ok ? "" : "  (FAILED)");
  std::printf("  %-28s %8.2f s %10.0f packets/s %6.1f us CPU/packet%s\n", "raw block pump, 1 in flight", rawOne.seconds,
              PerSecond(packets, rawOne), CpuMicrosPerPacket(packets, rawOne), rawOne.ok ? "" : "  (FAILED)");
  std::printf("  %-28s %8.2f   (target >= 0.80)\n", "upgrade / windowed raw", ratio);
  std::printf("  %-28s %8ld KiB\n", "ferrolt peak RSS, 1 MiB", smallRss);
  std::printf("  %-28s %8ld KiB   (first %lld s of the run)\n", "ferrolt peak RSS, 256 MiB", largeRss,
              static_cast<long long>(kLargeRunSlice.count() / 1000));
  return upgrade.ok && raw.ok && rawOne.ok ? 0 : 1;
}

}  // namespace
}  // namespace ferrolt::bench

int main() {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() / ("ferrolt-bench-upgrade-" + std::to_string(getpid()));
  fs::create_directories(dir);
  const int status = ferrolt::bench::Run(dir);
  std::error_code ignored;
  fs::remove_all(dir, ignored);
  return status;
}
