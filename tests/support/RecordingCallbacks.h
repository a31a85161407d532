// Callbacks that keep what an operation reported: the log messages after
// their first formatting pass (so "%%%%" in a format is kept as "%%"), the
// progress values and the version texts, in order. Safe to call from the
// worker and the response reader at once.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "link/Callbacks.h"

namespace ferrolt::test {

class RecordingLog final : public ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string format, ...) override {
    char text[kMessageCapacity] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format.c_str(), args);
    va_end(args);
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(text);
  }
  std::vector<std::string> Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  bool Has(const std::string& line) const {
    const auto lines = Lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
  size_t CountStartingWith(const std::string& prefix) const {
    const auto lines = Lines();
    return static_cast<size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const std::string& line) { return line.rfind(prefix, 0) == 0; }));
  }

 private:
  // As the console reporter's message buffer.
  static constexpr size_t kMessageCapacity = 1024;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class RecordingProgress final : public IProgressChangeCallBack {
 public:
  void ProgressChangeCallBack(int percent) override {
    std::lock_guard<std::mutex> lock(mutex_);
    reports_.push_back(percent);
  }
  std::vector<int> Reports() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reports_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<int> reports_;
};

class RecordingVersion final : public IVersionInfoReadyCallBack {
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

}  // namespace ferrolt::test
