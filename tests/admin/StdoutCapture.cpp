#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "tests/admin/StdoutCapture.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::test {

StdoutCapture::StdoutCapture() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/ferrolt-stdout-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = mkstemp(name.data());
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  path_ = name.data();
  std::fflush(stdout);
  savedFd_ = dup(STDOUT_FILENO);
  dup2(fd, STDOUT_FILENO);
  close(fd);
}

StdoutCapture::~StdoutCapture() {
  // A failing test's messages went into the capture too: show them.
  if (::testing::Test::HasFailure()) std::fprintf(stderr, "captured stdout:\n%s\n", Text().c_str());
  std::fflush(stdout);
  dup2(savedFd_, STDOUT_FILENO);
  close(savedFd_);
  unlink(path_.c_str());
}

std::string StdoutCapture::Text() const {
  std::fflush(stdout);
  return ReadFile(path_);
}

}  // namespace ferrolt::test
