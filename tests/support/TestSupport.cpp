#include "tests/support/TestSupport.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace ferrolt::test {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/ferrolt-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<Block> ReadBlocks(const fs::path& path) {
  const std::string bytes = ReadFile(path);
  std::vector<Block> blocks(bytes.size() / sizeof(Block));
  for (size_t i = 0; i < blocks.size(); ++i)
    std::memcpy(blocks[i].data(), bytes.data() + i * sizeof(Block), sizeof(Block));
  return blocks;
}

void WriteFile(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string RandomBytes(size_t count, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
  return bytes;
}

size_t CountOf(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

int FreeTcpPort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                     getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  if (fd >= 0) close(fd);
  if (!bound) throw std::runtime_error("cannot find a free TCP port");
  return ntohs(address.sin_port);
}

int BindUnixSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  if (fd >= 0) close(fd);
  throw std::runtime_error("cannot bind " + path);
}

void LeaveStaleSocket(const std::string& path) { close(BindUnixSocket(path)); }

namespace {

void SetNonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

// The environment the child gets: this process's, less the variables removed,
// with the variables set.
std::vector<std::string> ChildEnvironment(const ProcessOptions& options) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) entries.emplace_back(*entry);
  auto drop = [&entries](const std::string& name) {
    std::erase_if(entries, [&name](const std::string& entry) { return entry.rfind(name + "=", 0) == 0; });
  };
  for (const auto& name : options.unsetEnv) drop(name);
  for (const auto& [name, value] : options.env) {
    drop(name);
    entries.push_back(name + "=" + value);
  }
  return entries;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (auto& text : strings) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

// Started with posix_spawn rather than fork and exec: in a test process with
// threads, and with the umockdev preload library wrapping open, close and
// chdir, code run between fork and exec can block forever on a lock another
// thread held at the fork. posix_spawn's child runs none of it.
Subprocess::Subprocess(const std::string& program, const ProcessOptions& options) {
  int outPipe[2];
  int errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  if (!options.cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, options.cwd.c_str());
  // The child starts with an empty signal mask (handlers reset on exec).
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);

  std::vector<std::string> args = {program};
  args.insert(args.end(), options.args.begin(), options.args.end());
  std::vector<std::string> environment = ChildEnvironment(options);
  start_ = std::chrono::steady_clock::now();
  // A program named without a folder is looked up in PATH (a launcher such as wine).
  const int failure =
      posix_spawnp(&pid_, program.c_str(), &actions, &attributes, Pointers(args).data(), Pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(outPipe[1]);
  close(errPipe[1]);
  if (failure != 0) {
    close(outPipe[0]);
    close(errPipe[0]);
    throw std::runtime_error("cannot start " + program + ": " + std::strerror(failure));
  }
  outFd_ = outPipe[0];
  errFd_ = errPipe[0];
  SetNonBlocking(outFd_);
  SetNonBlocking(errFd_);
}

Subprocess::~Subprocess() {
  if (!reaped_ && pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (outFd_ >= 0) close(outFd_);
  if (errFd_ >= 0) close(errFd_);
}

void Subprocess::Signal(int signal) {
  if (!reaped_) kill(pid_, signal);
}

// Reads what is there for at most slice; false once both pipes are closed.
bool Subprocess::Pump(milliseconds slice) {
  pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
  int open = (outFd_ >= 0) + (errFd_ >= 0);
  if (open == 0) return false;
  poll(fds, 2, static_cast<int>(slice.count()));
  char buffer[65536];
  int* fdsToRead[2] = {&outFd_, &errFd_};
  std::string* sinks[2] = {&out_, &err_};
  for (int i = 0; i < 2; ++i) {
    if (*fdsToRead[i] < 0) continue;
    for (;;) {
      ssize_t n = read(*fdsToRead[i], buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
        continue;
      }
      if (n == 0) {
        close(*fdsToRead[i]);
        *fdsToRead[i] = -1;
      }
      break;
    }
  }
  return outFd_ >= 0 || errFd_ >= 0;
}

bool Subprocess::WaitForOutput(const std::string& text, milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (out_.find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    if (!Pump(milliseconds(10)) && out_.find(text) == std::string::npos) return false;
  }
  return true;
}

ProcessResult Subprocess::Wait(milliseconds timeout) {
  ProcessResult result;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  for (;;) {
    pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      result.timedOut = true;
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    Pump(milliseconds(5));
  }
  reaped_ = true;
  result.elapsed = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start_);
  // Drain what the child left in its pipes (grandchildren may hold them: bound it).
  const auto drainUntil = std::chrono::steady_clock::now() + milliseconds(2000);
  while (Pump(milliseconds(20)) && std::chrono::steady_clock::now() < drainUntil) {
  }
  if (WIFEXITED(status) && !result.timedOut) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.termSignal = WTERMSIG(status);
  result.out = out_;
  result.err = err_;
  return result;
}

ProcessResult RunProcess(const std::string& program, const ProcessOptions& options) {
  Subprocess process(program, options);
  return process.Wait(options.timeout);
}

std::string WhyNoTreeDissector() {
  static const std::string why = [] {
    ProcessOptions options;
    options.args = {"-G", "plugins"};
    ProcessResult plugins;
    try {
      plugins = RunProcess("tshark", options);
    } catch (const std::runtime_error&) {
      return std::string("tshark is not installed (scripts/install-deps.sh --tests)");
    }
    if (plugins.out.find("ferrolt.lua") == std::string::npos) return std::string();
    return std::string(
        "tshark loads an installed ferrolt.lua (the package is installed): the tree's copy cannot "
        "register beside it");
  }();
  return why;
}

namespace {

constexpr milliseconds kDevsimStartLimit{10000};
constexpr const char* kListeningOn = "ferrolt-devsim: listening on ";

}  // namespace

DevsimServer::DevsimServer(std::vector<std::string> extraArgs, const fs::path& root, DevsimEndpoint endpoint,
                           const fs::path& usbredirSocket)
    : root_(root.empty() ? dir_ / "root" : root), record_(dir_ / "received.bin"), events_(dir_ / "events.log") {
  ProcessOptions options;
  switch (endpoint) {
    case DevsimEndpoint::UnixSocket:
      options.args = {"--socket", (dir_ / "device.sock").string()};
      break;
    case DevsimEndpoint::Tcp:
      options.args = {"--tcp", "127.0.0.1:0"};
      break;
    case DevsimEndpoint::Usbredir:
      options.args = {"--usbredir", usbredirSocket.string()};
      break;
  }
  options.args.insert(options.args.end(),
                      {"--root", root_.string(), "--record", record_.string(), "--events", events_.string()});
  options.args.insert(options.args.end(), extraArgs.begin(), extraArgs.end());
  process_ = std::make_unique<Subprocess>(DEVSIM_BIN, options);
  // The line names the endpoint it listens on, the TCP port it picked included.
  const std::string& out = process_->OutSoFar();
  const size_t at = process_->WaitForOutput("\n", kDevsimStartLimit) ? out.find(kListeningOn) : std::string::npos;
  if (at == std::string::npos) {
    process_.reset();
    return;
  }
  const size_t from = at + std::string(kListeningOn).size();
  endpoint_ = out.substr(from, out.find('\n', from) - from);
}

DevsimServer::~DevsimServer() { Stop(); }

void DevsimServer::Stop() {
  if (process_ == nullptr) return;
  process_->Signal(SIGTERM);
  process_->Wait(milliseconds(5000));
  process_.reset();
}

std::vector<Block> DevsimServer::Received() const { return ReadBlocks(record_); }

std::string DevsimServer::Events() const { return ReadFile(events_); }

ToolEnvironment DevsimServer::Environment() const { return {{{"FERROLT_EMULATOR", endpoint_}}, {}}; }

}  // namespace ferrolt::test
