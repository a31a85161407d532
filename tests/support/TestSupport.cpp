#include "tests/support/TestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
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

namespace {

void SetNonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

}  // namespace

Subprocess::Subprocess(const std::string& program, const ProcessOptions& options) {
  int outPipe[2];
  int errPipe[2];
  if (pipe(outPipe) != 0 || pipe(errPipe) != 0) throw std::runtime_error("pipe failed");
  start_ = std::chrono::steady_clock::now();
  pid_ = fork();
  if (pid_ == 0) {
    dup2(outPipe[1], STDOUT_FILENO);
    dup2(errPipe[1], STDERR_FILENO);
    int devNull = open("/dev/null", O_RDONLY);
    dup2(devNull, STDIN_FILENO);
    close(outPipe[0]);
    close(errPipe[0]);
    // The child starts with default signal handling and an empty mask.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const auto& name : options.unsetEnv) unsetenv(name.c_str());
    for (const auto& [name, value] : options.env) setenv(name.c_str(), value.c_str(), 1);
    if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& arg : options.args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);
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

DevsimServer::DevsimServer(std::vector<std::string> extraArgs, const fs::path& root)
    : socket_(dir_ / "device.sock"),
      root_(root.empty() ? dir_ / "root" : root),
      record_(dir_ / "received.bin"),
      events_(dir_ / "events.log") {
  ProcessOptions options;
  options.args = {"--socket", socket_.string(), "--root", root_.string(), "--record", record_.string(),
                  "--events", events_.string()};
  options.args.insert(options.args.end(), extraArgs.begin(), extraArgs.end());
  process_ = std::make_unique<Subprocess>(DEVSIM_BIN, options);
  if (!process_->WaitForOutput("listening", milliseconds(10000))) process_.reset();
}

DevsimServer::~DevsimServer() { Stop(); }

void DevsimServer::Stop() {
  if (process_ == nullptr) return;
  process_->Signal(SIGTERM);
  process_->Wait(milliseconds(5000));
  process_.reset();
}

std::vector<Block> DevsimServer::Received() const {
  const std::string bytes = ReadFile(record_);
  std::vector<Block> blocks(bytes.size() / 64);
  for (size_t i = 0; i < blocks.size(); ++i) std::memcpy(blocks[i].data(), bytes.data() + i * 64, 64);
  return blocks;
}

std::string DevsimServer::Events() const { return ReadFile(events_); }

ProcessResult RunFerrolt(const std::vector<std::string>& args, const std::string& endpoint, const fs::path& cwd,
                         milliseconds timeout) {
  ProcessOptions options;
  options.args = args;
  options.env = {{"FERROLT_EMULATOR", endpoint}};
  options.cwd = cwd;
  options.timeout = timeout;
  return RunProcess(FERROLT_BIN, options);
}

std::string PayloadTextOf(const Block& block) {
  char text[58] = {};
  std::memcpy(text, block.data() + 6, 57);
  return text;
}

}  // namespace ferrolt::test
