// Upgrade throughput against a spawned ferrolt-devsim over the emulator link,
// next to a raw pump of as many 64-byte blocks over the same link; the host
// CPU time per packet; and the peak memory of `ferrolt upgrade` for a small
// and a large bundle, which must not grow with the bundle.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "admin/DeviceAdmin.h"
#include "bench/support/BenchSupport.h"
#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "platform/emulator/EmulatorBackend.h"

namespace ferrolt::bench {
namespace {

constexpr size_t kThroughputBundle = size_t{4} << 20;
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

Timed TimeUpgrade(const std::string& endpoint, const fs::path& bundle) {
  DeviceAdmin admin(platform::CreateEmulatorBackend(endpoint));
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

Timed TimeRawPump(const std::string& endpoint, size_t blocks) {
  platform::Event cancel;
  auto backend = platform::CreateEmulatorBackend(endpoint);
  UsbLink link(*backend, cancel);
  Timed timed;
  QuietStdout quiet;  // the link prints the device speed
  if (!link.ConnectDevice(kProductId, kVendorId, nullptr)) return timed;
  const Block block{};  // type 0: no service of the device takes it
  const auto start = Clock::now();
  size_t written = 0;
  for (size_t i = 0; i < blocks; ++i)
    written += link.WritePacket(block.data(), kBlockSize, nullptr) == TransferStatus::Done;
  timed.seconds = Seconds(Clock::now() - start);
  timed.ok = written == blocks;
  link.CloseDevice();
  return timed;
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
  const fs::path bundle = dir / "bundle-4m.bin";
  WriteRandomFile(bundle, kThroughputBundle, kSeed);
  const size_t packets = (kThroughputBundle + kPayloadSize - 1) / kPayloadSize;

  const Timed upgrade = TimeUpgrade(device.Endpoint(), bundle);
  const Timed raw = TimeRawPump(device.Endpoint(), packets);

  const fs::path small = dir / "bundle-1m.bin";
  WriteRandomFile(small, kSmallBundle, kSeed);
  const fs::path large = dir / "bundle-256m.bin";
  std::ofstream(large, std::ios::binary).close();
  fs::resize_file(large, kLargeBundle);  // sparse: reads as zeros, costs no disk
  const long smallRss = PeakRssOfUpgrade(device.Endpoint(), small, milliseconds::zero());
  const long largeRss = PeakRssOfUpgrade(device.Endpoint(), large, kLargeRunSlice);

  const double ratio = raw.seconds > 0 && upgrade.seconds > 0 ? raw.seconds / upgrade.seconds : 0;
  std::printf("upgrade_throughput (%zu-byte bundle, %zu packets)\n", kThroughputBundle, packets);
  std::printf("  %-28s %8.2f s %10.0f packets/s %8.0f KiB/s%s\n", "upgrade", upgrade.seconds, packets / upgrade.seconds,
              kThroughputBundle / kKiB / upgrade.seconds, upgrade.ok ? "" : "  (FAILED)");
  std::printf("  %-28s %8.2f s %10.0f packets/s%s\n", "raw block pump", raw.seconds, packets / raw.seconds,
              raw.ok ? "" : "  (FAILED)");
  std::printf("  %-28s %8.2f   (target >= 0.90)\n", "upgrade / raw", ratio);
  std::printf("  %-28s %8.1f us\n", "host CPU per packet", upgrade.cpuSeconds * 1e6 / static_cast<double>(packets));
  std::printf("  %-28s %8ld KiB\n", "ferrolt peak RSS, 1 MiB", smallRss);
  std::printf("  %-28s %8ld KiB   (first %lld s of the run)\n", "ferrolt peak RSS, 256 MiB", largeRss,
              static_cast<long long>(kLargeRunSlice.count() / 1000));
  return upgrade.ok && raw.ok ? 0 : 1;
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
