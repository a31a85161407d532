// A capture of the process's standard output that can be read while it is
// being written.
#pragma once

#include <string>

namespace ferrolt::test {

// Redirects file descriptor 1 into a temporary file for its lifetime.
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;
  // Everything written so far.
  std::string Text() const;

 private:
  int savedFd_ = -1;
  std::string path_;
};

}  // namespace ferrolt::test
