// What the benchmark programs share: a ferrolt-devsim of their own, child
// processes whose peak memory is measured, quiet in-process runs and the
// small helpers of their figures.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "link/Callbacks.h"

namespace ferrolt::bench {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

inline constexpr double kKiB = 1024.0;
// The host CPU an upgrade or download packet may cost the tool, in microseconds.
inline constexpr double kCpuPerPacketTarget = 1.5;
// How long a spawned ferrolt-devsim may take to listen.
inline constexpr milliseconds kDeviceStartLimit{10000};
// How often the benchmarks look at a running operation or child.
inline constexpr milliseconds kPollStep{2};
// A run that takes longer than this has failed.
inline constexpr milliseconds kRunLimit{300000};
// The bound given to DeviceAdmin's teardown after each in-process run.
inline constexpr milliseconds kShutdownBound{2000};

class NullLog final : public ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string, ...) override {}
};

double Seconds(Clock::duration duration);
// User plus system time of this process so far.
double CpuSeconds();
// size pseudo-random bytes, the same for the same seed.
void WriteRandomFile(const fs::path& path, size_t size, unsigned seed);

// Starts a program with its output discarded and extraEnv ("NAME=value")
// added to this process's environment. -1 when it could not be started.
pid_t Spawn(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv);

// Runs a program to its end (stopping it with SIGINT after stopAfter, when
// given, and killing it after kRunLimit) and returns its peak resident
// memory in KiB, or -1. The peak is the child's own: read from its
// /proc/PID/status while it runs, since the rusage of a spawned child also
// counts the parent's memory it started from.
long PeakRssOf(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv,
               milliseconds stopAfter = milliseconds::zero());

// ferrolt-devsim serving a Unix socket in dir, its root folder dir/root.
class DevsimProcess {
 public:
  explicit DevsimProcess(const fs::path& dir);
  ~DevsimProcess();
  DevsimProcess(const DevsimProcess&) = delete;
  DevsimProcess& operator=(const DevsimProcess&) = delete;

  bool Ready() const;
  std::string Endpoint() const { return socket_.string(); }
  fs::path Root() const { return root_; }

 private:
  fs::path socket_;
  fs::path root_;
  pid_t pid_ = -1;
};

// Standard output goes to /dev/null while one lives: the operations print
// their console lines, which are not part of the figures.
class QuietStdout {
 public:
  QuietStdout();
  ~QuietStdout();
  QuietStdout(const QuietStdout&) = delete;
  QuietStdout& operator=(const QuietStdout&) = delete;

 private:
  int saved_;
};

}  // namespace ferrolt::bench
