#include "bench/support/BenchSupport.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <random>
#include <thread>

extern char** environ;

namespace ferrolt::bench {

namespace {

constexpr long kMicrosecondsPerSecond = 1000000;

// The child's peak resident set so far ("VmHWM:  1234 kB"), or -1 once it
// has gone.
long PeakRssNow(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    long kib = -1;
    if (std::sscanf(line.c_str(), "VmHWM: %ld kB", &kib) == 1) return kib;
  }
  return -1;
}

}  // namespace

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const long micros = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * kMicrosecondsPerSecond +
                      usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
  return static_cast<double>(micros) / kMicrosecondsPerSecond;
}

void WriteRandomFile(const fs::path& path, size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

pid_t Spawn(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv) {
  std::vector<char*> argv;
  for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  std::vector<std::string> envStrings(extraEnv);
  for (char** variable = environ; *variable != nullptr; ++variable) envStrings.emplace_back(*variable);
  std::vector<char*> envp;
  for (auto& variable : envStrings) envp.push_back(variable.data());
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

long PeakRssOf(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv, milliseconds stopAfter) {
  const pid_t pid = Spawn(args, extraEnv);
  if (pid <= 0) return -1;
  const auto start = Clock::now();
  bool stopped = false;
  long peak = -1;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    peak = std::max(peak, PeakRssNow(pid));
    const auto elapsed = Clock::now() - start;
    if (stopAfter > milliseconds::zero() && !stopped && elapsed >= stopAfter) {
      kill(pid, SIGINT);
      stopped = true;
    }
    if (elapsed >= kRunLimit) kill(pid, SIGKILL);
    std::this_thread::sleep_for(kPollStep);
  }
  return peak;
}

DevsimProcess::DevsimProcess(const fs::path& dir) : socket_(dir / "device.sock"), root_(dir / "root") {
  fs::create_directories(root_ / "tmp");
  pid_ = Spawn({DEVSIM_BIN, "--socket", socket_.string(), "--root", root_.string()}, {});
  const auto deadline = Clock::now() + kDeviceStartLimit;
  while (pid_ > 0 && !fs::exists(socket_) && Clock::now() < deadline) std::this_thread::sleep_for(kPollStep);
}

DevsimProcess::~DevsimProcess() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

bool DevsimProcess::Ready() const { return pid_ > 0 && fs::exists(socket_); }

QuietStdout::QuietStdout() : saved_(dup(STDOUT_FILENO)) {
  std::fflush(stdout);
  const int null = open("/dev/null", O_WRONLY);
  dup2(null, STDOUT_FILENO);
  close(null);
}

QuietStdout::~QuietStdout() {
  std::fflush(stdout);
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
}

}  // namespace ferrolt::bench
