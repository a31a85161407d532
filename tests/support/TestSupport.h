// Helpers shared by the tests: temporary folders, files, child processes with
// time-outs and signals, and a running ferrolt-devsim.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <memory>
#include <utility>
#include <vector>

namespace ferrolt::test {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

// A fresh folder under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const fs::path& Path() const { return path_; }
  fs::path operator/(const std::string& name) const { return path_ / name; }

 private:
  fs::path path_;
};

std::string ReadFile(const fs::path& path);
void WriteFile(const fs::path& path, const std::string& bytes);
// Deterministic pseudo-random bytes.
std::string RandomBytes(size_t count, unsigned seed);

struct ProcessOptions {
  std::vector<std::string> args;
  // Variables set (or, with an empty value and unset = true, removed).
  std::vector<std::pair<std::string, std::string>> env;
  std::vector<std::string> unsetEnv;
  fs::path cwd;  // empty: the test's own
  milliseconds timeout{60000};
};

struct ProcessResult {
  int exitStatus = -1;  // -1 when killed by a signal or timed out
  int termSignal = 0;
  bool timedOut = false;
  std::string out;
  std::string err;
  milliseconds elapsed{0};
};

// A child process with its stdout and stderr captured.
class Subprocess {
 public:
  Subprocess(const std::string& program, const ProcessOptions& options);
  ~Subprocess();  // kills the child if it still runs
  Subprocess(const Subprocess&) = delete;
  Subprocess& operator=(const Subprocess&) = delete;

  pid_t Pid() const { return pid_; }
  void Signal(int signal);
  // Reads output until stdout contains text or the time-out passes.
  bool WaitForOutput(const std::string& text, milliseconds timeout);
  // Waits for the child to end (killing it after the time-out).
  ProcessResult Wait(milliseconds timeout);
  const std::string& OutSoFar() const { return out_; }

 private:
  bool Pump(milliseconds slice);

  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  std::string out_;
  std::string err_;
  std::chrono::steady_clock::time_point start_;
  bool reaped_ = false;
};

ProcessResult RunProcess(const std::string& program, const ProcessOptions& options);

using Block = std::array<uint8_t, 64>;

// ferrolt-devsim serving a Unix socket in a temporary folder, its root folder
// beside it, every OUT block recorded.
class DevsimServer {
 public:
  explicit DevsimServer(std::vector<std::string> extraArgs = {}, const fs::path& root = {});
  ~DevsimServer();
  DevsimServer(const DevsimServer&) = delete;
  DevsimServer& operator=(const DevsimServer&) = delete;

  bool Running() const { return process_ != nullptr; }
  // The value for FERROLT_EMULATOR.
  std::string Endpoint() const { return socket_.string(); }
  const fs::path& Root() const { return root_; }
  // Every OUT block the device received, in order.
  std::vector<Block> Received() const;
  // The device's event log so far.
  std::string Events() const;
  void Stop();

 private:
  TempDir dir_;
  fs::path socket_;
  fs::path root_;
  fs::path record_;
  fs::path events_;
  std::unique_ptr<Subprocess> process_;
};

// Runs the built ferrolt with FERROLT_EMULATOR pointing at the server (or at
// endpoint when given), in cwd.
ProcessResult RunFerrolt(const std::vector<std::string>& args, const std::string& endpoint, const fs::path& cwd,
                         milliseconds timeout = milliseconds(60000));

// The text of a packet's payload (57 bytes plus a zero).
std::string PayloadTextOf(const Block& block);

}  // namespace ferrolt::test
