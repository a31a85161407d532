// A log callback that keeps every message it is given, formatted.
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
    char text[kMessageCapacity];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format.c_str(), args);
    va_end(args);
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(text);
  }

  std::vector<std::string> Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  static constexpr size_t kMessageCapacity = 1024;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace ferrolt::test
