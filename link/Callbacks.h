// The three ways an operation reports upward. Each has exactly one virtual
// operation and nothing else; callers never delete a callback through these.
#pragma once

#include <string>

namespace ferrolt {

class IProgressChangeCallBack {
 public:
  virtual void ProgressChangeCallBack(int percent) = 0;

 protected:
  ~IProgressChangeCallBack() = default;
};

// format is printf-style; the values it names (int or C string) follow it.
class ILogMessageCallBack {
 public:
  virtual void LogMessageCallBack(std::string format, ...) = 0;

 protected:
  ~ILogMessageCallBack() = default;
};

class IVersionInfoReadyCallBack {
 public:
  virtual void VersionInfoReadyCallBack(std::string version) = 0;

 protected:
  ~IVersionInfoReadyCallBack() = default;
};

}  // namespace ferrolt
