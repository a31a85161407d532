// Callbacks that record what an operation reported, and a capture of the
// process's standard output that can be read while it is being written.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "admin/Callbacks.h"

namespace ferrolt::test {

class RecordingLog : public ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string format, ...) override {
    char text[1024] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format.c_str(), args);
    va_end(args);
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(text);
  }
  std::vector<std::string> Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class RecordingProgress : public IProgressChangeCallBack {
 public:
  void ProgressChangeCallBack(int percent) override {
    std::lock_guard<std::mutex> lock(mutex_);
    percents_.push_back(percent);
  }
  std::vector<int> Percents() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return percents_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<int> percents_;
};

class RecordingVersion : public IVersionInfoReadyCallBack {
 public:
  void VersionInfoReadyCallBack(std::string version) override {
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.push_back(std::move(version));
  }
  std::vector<std::string> Texts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> texts_;
};

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
