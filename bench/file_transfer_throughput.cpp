// File upload and download throughput against a spawned ferrolt-devsim over
// the emulator link, each beside a raw pump of as many 64-byte blocks over the
// same link (writes for the upload, reads of the device's stream for the
// download), and the peak memory of a spawned ferrolt for a small and a large
// file, which must not grow with the file.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "admin/DeviceAdmin.h"
#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"
#include "platform/emulator/EmulatorBackend.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t kThroughputFile = size_t{2} << 20;
constexpr size_t kSmallFile = size_t{1} << 20;
constexpr size_t kLargeFile = size_t{16} << 20;
constexpr milliseconds kDeviceStartLimit{10000};
constexpr milliseconds kPollStep{2};
constexpr milliseconds kRunLimit{300000};
constexpr milliseconds kShutdownBound{2000};
constexpr double kKiB = 1024.0;

class NullLog final : public ferrolt::ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string, ...) override {}
};

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

void WriteRandomFile(const fs::path& path, size_t size) {
  std::mt19937 generator(static_cast<unsigned>(size));
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
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

// Peak resident memory (KiB) of one ferrolt run, or -1.
long PeakMemoryOf(const std::vector<std::string>& args, const std::string& endpoint) {
  std::vector<std::string> argv{FERROLT_BIN};
  argv.insert(argv.end(), args.begin(), args.end());
  const pid_t pid = Spawn(argv, {std::string(ferrolt::platform::kEmulatorVariable) + "=" + endpoint});
  if (pid < 0) return -1;
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) != pid) return -1;
  return usage.ru_maxrss;
}

bool WaitUntilIdle(ferrolt::DeviceAdmin& admin) {
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
  ferrolt::DeviceAdmin admin(ferrolt::platform::CreateEmulatorBackend(endpoint));
  NullLog log;
  const auto start = Clock::now();
  admin.UploadFileAsync(name, nullptr, &log);
  const bool ended = WaitUntilIdle(admin);
  const double taken = Seconds(Clock::now() - start) - Seconds(ferrolt::limits::kReconnectPause);
  admin.Shutdown(kShutdownBound);
  return ended ? taken : -1;
}

double TimeDownload(const std::string& endpoint, const std::string& devicePath, const fs::path& savePath) {
  ferrolt::DeviceAdmin admin(ferrolt::platform::CreateEmulatorBackend(endpoint));
  NullLog log;
  const auto start = Clock::now();
  admin.DownloadFileAsync(devicePath, savePath.string(), nullptr, &log);
  const bool ended = WaitUntilIdle(admin);
  const double taken = Seconds(Clock::now() - start);
  admin.Shutdown(kShutdownBound);
  return ended ? taken : -1;
}

struct RawPump {
  double writeSeconds = -1;
  double readSeconds = -1;
};

// count blocks written one by one, then count blocks of the device's stream
// of devicePath read one by one, with nothing done to them.
RawPump PumpRaw(const std::string& endpoint, int count, const std::string& devicePath) {
  auto backend = ferrolt::platform::CreateEmulatorBackend(endpoint);
  ferrolt::platform::Event cancel;
  ferrolt::UsbLink link(*backend, cancel);
  RawPump pump;
  if (!link.ConnectDevice(ferrolt::kProductId, ferrolt::kVendorId, nullptr)) return pump;
  ferrolt::Block block{};
  auto start = Clock::now();
  for (int i = 0; i < count; ++i) link.WritePacket(block.data(), ferrolt::kBlockSize, nullptr);
  pump.writeSeconds = Seconds(Clock::now() - start);
  link.CloseDevice();
  if (!link.ConnectDevice(ferrolt::kProductId, ferrolt::kVendorId, nullptr)) return pump;
  const ferrolt::Block request =
      ferrolt::BuildTextPacket(ferrolt::PacketType::Download, "Starting download " + devicePath);
  start = Clock::now();
  link.WritePacket(request.data(), ferrolt::kBlockSize, nullptr);
  for (int i = 0; i < count; ++i) {
    if (link.ReadPacketBlocking(block.data(), ferrolt::kBlockSize, nullptr) != 0) return pump;
  }
  pump.readSeconds = Seconds(Clock::now() - start);
  link.CloseDevice();
  return pump;
}

}  // namespace

int main() {
  const fs::path work = fs::temp_directory_path() / ("ferrolt-bench-files-" + std::to_string(getpid()));
  fs::create_directories(work / "root" / "tmp");
  const std::string endpoint = (work / "device.sock").string();
  const pid_t device = Spawn({DEVSIM_BIN, "--socket", endpoint, "--root", (work / "root").string()}, {});
  const auto deadline = Clock::now() + kDeviceStartLimit;
  while (!fs::exists(endpoint) && Clock::now() < deadline) std::this_thread::sleep_for(milliseconds(10));
  // The upload names the file by its path; run where it lies.
  fs::current_path(work);
  WriteRandomFile(work / "up.bin", kThroughputFile);
  WriteRandomFile(work / "root" / "tmp" / "down.bin", kThroughputFile);
  WriteRandomFile(work / "small.bin", kSmallFile);
  WriteRandomFile(work / "large.bin", kLargeFile);
  WriteRandomFile(work / "root" / "tmp" / "small.bin", kSmallFile);
  WriteRandomFile(work / "root" / "tmp" / "large.bin", kLargeFile);

  const int packets = static_cast<int>((kThroughputFile + ferrolt::kPayloadSize - 1) / ferrolt::kPayloadSize);
  const double mib = static_cast<double>(kThroughputFile) / (kKiB * kKiB);
  const double upload = TimeUpload(endpoint, "up.bin");
  const double download = TimeDownload(endpoint, "/tmp/down.bin", work / "down.out");
  // The stream of a file one packet longer gives the start reply, the data
  // and the end reply: as many blocks as the pump reads.
  const RawPump raw = PumpRaw(endpoint, packets, "/tmp/down.bin");

  std::printf("file transfer throughput, %.0f MiB, %d packets\n", mib, packets);
  std::printf("  upload   %7.3f s  %8.1f KiB/s\n", upload, mib * kKiB / upload);
  std::printf("  raw write pump  %7.3f s  %8.1f KiB/s\n", raw.writeSeconds, mib * kKiB / raw.writeSeconds);
  std::printf("  upload / raw write pump: %.2f\n", upload / raw.writeSeconds);
  std::printf("  download %7.3f s  %8.1f KiB/s\n", download, mib * kKiB / download);
  std::printf("  raw read pump   %7.3f s  %8.1f KiB/s\n", raw.readSeconds, mib * kKiB / raw.readSeconds);
  std::printf("  download / raw read pump: %.2f\n", download / raw.readSeconds);

  const long uploadSmall = PeakMemoryOf({"upload", "small.bin"}, endpoint);
  const long uploadLarge = PeakMemoryOf({"upload", "large.bin"}, endpoint);
  const long downloadSmall = PeakMemoryOf({"download", "/tmp/small.bin", "small.out"}, endpoint);
  const long downloadLarge = PeakMemoryOf({"download", "/tmp/large.bin", "large.out"}, endpoint);
  std::printf("peak memory of ferrolt (max RSS, KiB): 1 MiB vs 16 MiB\n");
  std::printf("  upload   %ld vs %ld\n", uploadSmall, uploadLarge);
  std::printf("  download %ld vs %ld\n", downloadSmall, downloadLarge);

  kill(device, SIGTERM);
  waitpid(device, nullptr, 0);
  std::error_code ignored;
  fs::current_path(fs::temp_directory_path(), ignored);
  fs::remove_all(work, ignored);
  return 0;
}
