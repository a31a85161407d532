// What a program's operation reports through: the console sink and the three
// reporters of the workers, each forwarding to the callbacks the caller gave
// for the running call. Calls into the caller are made one at a time, though
// the worker, the upgrade's response reader and a cancel report from threads
// of their own. The backend's hints come as notes. The last error line and
// the last note are kept for the call's message.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>

#include "ferrolt/ferrolt.h"
#include "link/Callbacks.h"
#include "link/ConsoleSink.h"
#include "platform/Hint.h"

namespace ferrolt::api {

class CallerReporters final : public ConsoleSink,
                              public platform::HintSink,
                              public ILogMessageCallBack,
                              public IProgressChangeCallBack,
                              public IVersionInfoReadyCallBack {
 public:
  // callbacks (may be null) take the reports until End; what the last call
  // kept is forgotten.
  void Begin(const ferrolt_callbacks* callbacks);
  void End() { callbacks_.store(nullptr); }

  void Print(std::string_view text) override;
  void Flush() override {}
  void Note(std::string_view line) override;
  // A hint of the backend's is a note.
  void Take(std::string_view text) override;
  void LogMessageCallBack(std::string format, ...) override;
  void ProgressChangeCallBack(int percent) override;
  void VersionInfoReadyCallBack(std::string version) override;

  // The last error line or note; unless onlyRemarkable, the last log line
  // when there was none.
  std::string Message(bool onlyRemarkable) const;
  std::string LastNote() const;
  std::string Version() const;

 private:
  void Line(std::string line, bool remarkable);

  std::atomic<const ferrolt_callbacks*> callbacks_{nullptr};
  // Held while a callback runs and while the kept texts change.
  mutable std::mutex mutex_;
  std::string remarkable_;
  std::string note_;
  std::string lastLine_;
  std::string version_;
};

}  // namespace ferrolt::api
