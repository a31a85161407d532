// One command the device's CLI runs: its output, read without waiting, and
// its end. Either a built-in that sees only the root folder, or, when the
// user asks for it, the host's shell.
#pragma once

#include <cstddef>

namespace ferrolt::devsim {

class CliCommand {
 public:
  enum class ReadResult { Data, Nothing, End };

  virtual ~CliCommand() = default;  // a command still running is killed
  // Up to capacity bytes of output, without waiting; End once there is no
  // more to come.
  virtual ReadResult Read(char* buffer, size_t capacity, size_t& count) = 0;
  // True once the command has finished.
  virtual bool Exited() = 0;
  // Ends the command and everything it started.
  virtual void Kill() = 0;
};

}  // namespace ferrolt::devsim
