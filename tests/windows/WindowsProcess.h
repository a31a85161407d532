// Runs a program as a child process with its standard output captured, for
// the tests that check what ferrolt.exe prints.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace ferrolt::test {

struct ChildResult {
  unsigned long exitCode = 0;
  bool timedOut = false;
  std::string out;  // standard output, as written
  std::string err;  // standard error, as written
};

// program is resolved against the test's working directory.
ChildResult RunChild(const std::filesystem::path& program, const std::vector<std::string>& args,
                     const std::filesystem::path& workingDirectory, std::chrono::milliseconds timeout);

// A fresh folder in the temporary folder, removed with its contents.
class WindowsTempDir {
 public:
  WindowsTempDir();
  ~WindowsTempDir();
  WindowsTempDir(const WindowsTempDir&) = delete;
  WindowsTempDir& operator=(const WindowsTempDir&) = delete;
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace ferrolt::test
