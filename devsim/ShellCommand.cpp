#include "devsim/ShellCommand.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace ferrolt::devsim {
namespace {

constexpr const char* kShell = "/bin/sh";
// The exit status of a child that could not become the shell.
constexpr int kCannotRun = 127;

}  // namespace

ShellCommand::~ShellCommand() {
  if (!reaped_) Kill();
  close(outputFd_);
}

std::unique_ptr<ShellCommand> ShellCommand::Start(const std::string& text, const std::filesystem::path& folder) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return nullptr;
  const std::string dir = folder.string();
  const pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return nullptr;
  }
  if (pid == 0) {
    // Only async-signal-safe calls between fork and exec.
    setpgid(0, 0);
    const int devNull = open("/dev/null", O_RDONLY);
    if (devNull >= 0) dup2(devNull, STDIN_FILENO);
    dup2(fds[1], STDOUT_FILENO);
    dup2(fds[1], STDERR_FILENO);
    if (chdir(dir.c_str()) != 0) _exit(kCannotRun);
    execl(kShell, "sh", "-c", text.c_str(), static_cast<char*>(nullptr));
    _exit(kCannotRun);
  }
  // Also set here, so a kill that comes before the child runs reaches its group.
  setpgid(pid, pid);
  close(fds[1]);
  fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
  return std::unique_ptr<ShellCommand>(new ShellCommand(pid, fds[0]));
}

ShellCommand::ReadResult ShellCommand::Read(char* buffer, size_t capacity, size_t& count) {
  count = 0;
  for (;;) {
    const ssize_t n = read(outputFd_, buffer, capacity);
    if (n > 0) {
      count = static_cast<size_t>(n);
      return ReadResult::Data;
    }
    if (n == 0) return ReadResult::End;
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK ? ReadResult::Nothing : ReadResult::End;
  }
}

bool ShellCommand::Exited() {
  if (reaped_) return true;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) reaped_ = true;
  return reaped_;
}

// The group outlives a reaped shell while a child it left behind still runs.
void ShellCommand::Kill() {
  kill(-pid_, SIGKILL);
  if (reaped_) return;
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  reaped_ = true;
}

}  // namespace ferrolt::devsim
