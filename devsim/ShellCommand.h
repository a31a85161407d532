// One shell command running on the device: `/bin/sh -c TEXT` in a process
// group of its own, its stdout and stderr merged into one non-blocking pipe.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <string>

namespace ferrolt::devsim {

class ShellCommand {
 public:
  enum class ReadResult { Data, Nothing, End };

  ShellCommand() = default;
  ~ShellCommand();  // kills and reaps a command still running
  ShellCommand(const ShellCommand&) = delete;
  ShellCommand& operator=(const ShellCommand&) = delete;

  bool Start(const std::string& text, const std::filesystem::path& folder);
  bool Running() const { return pid_ > 0; }
  // Up to capacity bytes of output, without waiting; End once every writer
  // has closed the pipe.
  ReadResult Read(char* buffer, size_t capacity, size_t& count);
  // True once the shell has exited (it is then reaped).
  bool Exited();
  // Kills the whole process group and reaps the shell.
  void Kill();
  // Closes the output pipe and forgets the command.
  void Release();

 private:
  pid_t pid_ = -1;
  int outputFd_ = -1;
  bool reaped_ = false;
};

}  // namespace ferrolt::devsim
