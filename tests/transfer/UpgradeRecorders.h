// Callbacks for the upgrade tests that keep what they were told: the log
// formatted as the console shows it, the progress values in order.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "admin/Callbacks.h"

namespace ferrolt::test::upgrade {

// Formats like the console reporter (twice, so "%%%%" shows as one '%').
class RecordingLog final : public ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string format, ...) override {
    char first[1024] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(first, sizeof first, format.c_str(), args);
    va_end(args);
    std::string shown;
    for (const char* c = first; *c != '\0'; ++c) {
      shown += *c;
      if (c[0] == '%' && c[1] == '%') ++c;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(shown);
  }
  std::vector<std::string> Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  bool Has(const std::string& line) const {
    const auto lines = Lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

 private:
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

}  // namespace ferrolt::test::upgrade
