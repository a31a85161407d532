// Helpers shared by the tests: temporary folders, files, child processes with
// time-outs and signals, and a running ferrolt-devsim.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/DeviceUnderTest.h"

namespace ferrolt::test {

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
// A file of 64-byte blocks (what a device recorded), in order.
std::vector<Block> ReadBlocks(const fs::path& path);
void WriteFile(const fs::path& path, const std::string& bytes);
// Deterministic pseudo-random bytes.
std::string RandomBytes(size_t count, unsigned seed);
// How often part occurs in text, without overlaps.
size_t CountOf(const std::string& text, const std::string& part);
// A loopback TCP port that nothing listens on: bound, then let go.
int FreeTcpPort();
// A Unix stream socket bound to path, not yet listening; throws when it cannot be.
int BindUnixSocket(const std::string& path);
// A Unix socket file nobody listens on, as a killed server leaves it.
void LeaveStaleSocket(const std::string& path);

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

// Why tshark cannot decode with the tree's dissector, empty when it can: it
// is not installed, or it loads an installed copy already (the project's
// package), beside which a second one cannot register.
std::string WhyNoTreeDissector();

// How ferrolt-devsim is reached: a Unix socket in its temporary folder, or a
// TCP port on the loopback interface that it picks itself; or, as a USB
// device for a virtual machine, its usbredir front on a given Unix socket.
enum class DevsimEndpoint { UnixSocket, Tcp, Usbredir };

// ferrolt-devsim in a temporary folder, its root folder beside it, every OUT
// block recorded.
class DevsimServer final : public DeviceUnderTest {
 public:
  explicit DevsimServer(std::vector<std::string> extraArgs = {}, const fs::path& root = {},
                        DevsimEndpoint endpoint = DevsimEndpoint::UnixSocket, const fs::path& usbredirSocket = {});
  ~DevsimServer() override;
  DevsimServer(const DevsimServer&) = delete;
  DevsimServer& operator=(const DevsimServer&) = delete;

  bool Running() const override { return process_ != nullptr; }
  // The value for FERROLT_EMULATOR: the socket path or "tcp:127.0.0.1:PORT".
  std::string Endpoint() const { return endpoint_; }
  ToolEnvironment Environment() const override;
  const fs::path& Root() const override { return root_; }
  std::vector<Block> Received() const override;
  std::string Events() const override;
  void Stop() override;

 private:
  TempDir dir_;
  std::string endpoint_;
  fs::path root_;
  fs::path record_;
  fs::path events_;
  std::unique_ptr<Subprocess> process_;
};

}  // namespace ferrolt::test
