#include "api/CallerReporters.h"

#include <charconv>
#include <cstdarg>
#include <optional>
#include <utility>

#include "admin/RetrieveVersion.h"
#include "link/Reporting.h"

namespace ferrolt::api {
namespace {

// The starts of the log lines that say why an operation did not do its work.
constexpr std::string_view kErrorStarts[] = {"Error", "ERROR", "Failed"};

bool SaysWhatWentWrong(std::string_view line) {
  for (std::string_view start : kErrorStarts)
    if (line.starts_with(start)) return true;
  return false;
}

// The upgrade and the log download tell their progress in log lines, which
// the command-line tool prints as they are; a program gets them as numbers
// too.
constexpr std::string_view kProgressLineStarts[] = {"Progress: ", "Download Log Progress: "};

std::optional<int> PercentIn(std::string_view line) {
  for (std::string_view start : kProgressLineStarts) {
    if (!line.starts_with(start)) continue;
    int percent = 0;
    const char* digits = line.data() + start.size();
    const auto [end, error] = std::from_chars(digits, line.data() + line.size(), percent);
    if (error == std::errc() && end != digits && end != line.data() + line.size() && *end == '%') return percent;
  }
  return std::nullopt;
}

}  // namespace

void CallerReporters::Begin(const ferrolt_callbacks* callbacks) {
  std::lock_guard<std::mutex> lock(mutex_);
  remarkable_.clear();
  note_.clear();
  lastLine_.clear();
  version_.clear();
  callbacks_.store(callbacks);
}

void CallerReporters::Print(std::string_view text) {
  const ferrolt_callbacks* callbacks = callbacks_.load();
  if (callbacks == nullptr || callbacks->console == nullptr) return;
  const std::string copy(text);
  std::lock_guard<std::mutex> lock(mutex_);
  callbacks->console(copy.c_str(), callbacks->user_data);
}

void CallerReporters::Note(std::string_view line) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    note_ = line;
  }
  Line(std::string(line), true);
}

void CallerReporters::Take(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  Note(text);
}

void CallerReporters::LogMessageCallBack(std::string format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string line = FormatLogMessage(format.c_str(), arguments);
  va_end(arguments);
  // A few workers end their message with a line end of their own.
  if (line.ends_with('\n')) line.pop_back();
  const bool remarkable = SaysWhatWentWrong(line);
  const std::optional<int> percent = PercentIn(line);
  Line(std::move(line), remarkable);
  if (percent) ProgressChangeCallBack(*percent);
}

void CallerReporters::ProgressChangeCallBack(int percent) {
  const ferrolt_callbacks* callbacks = callbacks_.load();
  if (callbacks == nullptr || callbacks->progress == nullptr) return;
  std::lock_guard<std::mutex> lock(mutex_);
  callbacks->progress(percent, callbacks->user_data);
}

// Only the report of the version itself counts, without its prefix.
void CallerReporters::VersionInfoReadyCallBack(std::string version) {
  if (!version.starts_with(kVersionPrefix)) return;
  std::lock_guard<std::mutex> lock(mutex_);
  version_ = version.substr(kVersionPrefix.size());
}

std::string CallerReporters::Message(bool onlyRemarkable) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return remarkable_.empty() && !onlyRemarkable ? lastLine_ : remarkable_;
}

std::string CallerReporters::LastNote() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return note_;
}

std::string CallerReporters::Version() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return version_;
}

void CallerReporters::Line(std::string line, bool remarkable) {
  const ferrolt_callbacks* callbacks = callbacks_.load();
  std::lock_guard<std::mutex> lock(mutex_);
  if (callbacks != nullptr && callbacks->log != nullptr) callbacks->log(line.c_str(), callbacks->user_data);
  if (remarkable) remarkable_ = line;
  lastLine_ = std::move(line);
}

}  // namespace ferrolt::api
