// Upgrade throughput against a spawned ferrolt-devsim over the emulator link,
// next to a raw pump of as many 64-byte blocks over the same link; the host
// CPU time per packet; and the peak memory of `ferrolt upgrade` for a small
// and a large bundle, which must not grow with the bundle.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "admin/DeviceAdmin.h"
#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "platform/emulator/EmulatorBackend.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t kThroughputBundle = size_t{4} << 20;
constexpr size_t kSmallBundle = size_t{1} << 20;
constexpr uint64_t kLargeBundle = uint64_t{256} << 20;
constexpr milliseconds kDeviceStartLimit{10000};
constexpr milliseconds kPollStep{5};
constexpr milliseconds kRunLimit{120000};
// The large bundle's run is stopped after this long: a tool that held the
// file in memory would have grown at its start.
constexpr milliseconds kLargeRunSlice{4000};
constexpr milliseconds kShutdownBound{2000};
constexpr double kKiB = 1024.0;

class NullLog final : public ferrolt::ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string, ...) override {}
};

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A child process with its output discarded.
pid_t Spawn(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv) {
  std::vector<char*> argv;
  for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  std::vector<std::string> envStrings(extraEnv);
  for (char** e = environ; *e != nullptr; ++e) envStrings.emplace_back(*e);
  std::vector<char*> envp;
  for (auto& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// Waits for the child (killing it after limit) and returns its peak RSS in KiB.
long WaitForPeakRss(pid_t pid, milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, WNOHANG, &usage) == 0) {
    if (Clock::now() >= deadline) kill(pid, SIGKILL);
    std::this_thread::sleep_for(kPollStep);
  }
  return usage.ru_maxrss;
}

void WriteRandomFile(const fs::path& path, size_t size) {
  std::mt19937 generator(1);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

class Device {
 public:
  explicit Device(const fs::path& dir) : socket_(dir / "device.sock") {
    pid_ = Spawn({DEVSIM_BIN, "--socket", socket_.string(), "--root", (dir / "root").string()}, {});
    const auto deadline = Clock::now() + kDeviceStartLimit;
    while (!fs::exists(socket_) && Clock::now() < deadline) std::this_thread::sleep_for(kPollStep);
  }
  ~Device() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  bool Ready() const { return pid_ > 0 && fs::exists(socket_); }
  std::string Endpoint() const { return socket_.string(); }

 private:
  fs::path socket_;
  pid_t pid_ = -1;
};

// The worker prints its console lines; they are not part of the figures.
class QuietStdout {
 public:
  QuietStdout() : saved_(dup(STDOUT_FILENO)) {
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    close(null);
  }
  ~QuietStdout() {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }

 private:
  int saved_;
};

struct Timed {
  double seconds = 0;
  double cpuSeconds = 0;
  bool ok = false;
};

Timed TimeUpgrade(const std::string& endpoint, const fs::path& bundle) {
  ferrolt::DeviceAdmin admin(ferrolt::platform::CreateEmulatorBackend(endpoint));
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
  ferrolt::platform::Event cancel;
  auto backend = ferrolt::platform::CreateEmulatorBackend(endpoint);
  ferrolt::UsbLink link(*backend, cancel);
  Timed timed;
  QuietStdout quiet;  // the link prints the device speed
  if (!link.ConnectDevice(ferrolt::kProductId, ferrolt::kVendorId, nullptr)) return timed;
  const ferrolt::Block block{};  // type 0: no service of the device takes it
  const auto start = Clock::now();
  size_t written = 0;
  for (size_t i = 0; i < blocks; ++i)
    written += link.WritePacket(block.data(), ferrolt::kBlockSize, nullptr) == ferrolt::TransferStatus::Done;
  timed.seconds = Seconds(Clock::now() - start);
  timed.ok = written == blocks;
  link.CloseDevice();
  return timed;
}

long PeakRssOfUpgrade(const std::string& endpoint, const fs::path& bundle, const fs::path& cwd, milliseconds slice,
                      bool stopEarly) {
  std::error_code ignored;
  fs::current_path(cwd, ignored);
  const pid_t pid = Spawn({FERROLT_BIN, "upgrade", bundle.string()}, {"FERROLT_EMULATOR=" + endpoint});
  if (pid <= 0) return -1;
  if (stopEarly) {
    std::this_thread::sleep_for(slice);
    kill(pid, SIGINT);
  }
  return WaitForPeakRss(pid, kRunLimit);
}

}  // namespace

int main() {
  const fs::path dir = fs::temp_directory_path() / ("ferrolt-bench-" + std::to_string(getpid()));
  fs::create_directories(dir);
  int status = 0;
  {
    Device device(dir);
    if (!device.Ready()) {
      std::fprintf(stderr, "ferrolt-devsim did not start\n");
      fs::remove_all(dir);
      return 1;
    }
    const fs::path bundle = dir / "bundle-4m.bin";
    WriteRandomFile(bundle, kThroughputBundle);
    const size_t packets = (kThroughputBundle + ferrolt::kPayloadSize - 1) / ferrolt::kPayloadSize;

    const Timed upgrade = TimeUpgrade(device.Endpoint(), bundle);
    const Timed raw = TimeRawPump(device.Endpoint(), packets);

    const fs::path small = dir / "bundle-1m.bin";
    WriteRandomFile(small, kSmallBundle);
    const fs::path large = dir / "bundle-256m.bin";
    std::ofstream(large, std::ios::binary).close();
    fs::resize_file(large, kLargeBundle);  // sparse: reads as zeros, costs no disk
    const long smallRss = PeakRssOfUpgrade(device.Endpoint(), small, dir, kLargeRunSlice, false);
    const long largeRss = PeakRssOfUpgrade(device.Endpoint(), large, dir, kLargeRunSlice, true);

    const double ratio = raw.seconds > 0 && upgrade.seconds > 0 ? raw.seconds / upgrade.seconds : 0;
    std::printf("upgrade_throughput (%zu-byte bundle, %zu packets)\n", kThroughputBundle, packets);
    std::printf("  %-28s %8.2f s %10.0f packets/s %8.0f KiB/s%s\n", "upgrade", upgrade.seconds,
                packets / upgrade.seconds, kThroughputBundle / kKiB / upgrade.seconds, upgrade.ok ? "" : "  (FAILED)");
    std::printf("  %-28s %8.2f s %10.0f packets/s%s\n", "raw block pump", raw.seconds, packets / raw.seconds,
                raw.ok ? "" : "  (FAILED)");
    std::printf("  %-28s %8.2f   (target >= 0.90)\n", "upgrade / raw", ratio);
    std::printf("  %-28s %8.1f us\n", "host CPU per packet", upgrade.cpuSeconds * 1e6 / static_cast<double>(packets));
    std::printf("  %-28s %8ld KiB\n", "ferrolt max RSS, 1 MiB", smallRss);
    std::printf("  %-28s %8ld KiB   (first %lld s of the run)\n", "ferrolt max RSS, 256 MiB", largeRss,
                static_cast<long long>(kLargeRunSlice.count() / 1000));
    status = upgrade.ok && raw.ok ? 0 : 1;
  }
  fs::remove_all(dir);
  return status;
}
