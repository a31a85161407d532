// One command run by the host's shell (only with --host-shell): `/bin/sh -c
// TEXT` in a process group of its own, its stdout and stderr merged into one
// non-blocking pipe.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>

#include "devsim/CliCommand.h"

namespace ferrolt::devsim {

class ShellCommand final : public CliCommand {
 public:
  // Null when the shell cannot be started.
  static std::unique_ptr<ShellCommand> Start(const std::string& text, const std::filesystem::path& folder);
  ~ShellCommand() override;  // kills and reaps a command still running
  ShellCommand(const ShellCommand&) = delete;
  ShellCommand& operator=(const ShellCommand&) = delete;

  ReadResult Read(char* buffer, size_t capacity, size_t& count) override;
  // True once the shell has exited (it is then reaped).
  bool Exited() override;
  // Kills the whole process group and reaps the shell.
  void Kill() override;

 private:
  ShellCommand(pid_t pid, int outputFd) : pid_(pid), outputFd_(outputFd) {}

  pid_t pid_;
  int outputFd_;
  bool reaped_ = false;
};

}  // namespace ferrolt::devsim
