// The lock of the upgrade sender's packet steps (LinkMutex): an unnamed Win32
// mutex on Windows, a std::mutex elsewhere. Both meet the standard Lockable
// requirements, so std::unique_lock takes either.
#pragma once

#ifndef _WIN32
#include <mutex>
#endif

namespace ferrolt::platform {

#ifdef _WIN32
class Mutex {
 public:
  Mutex();
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock();
  bool try_lock();
  void unlock();

 private:
  void* const handle_;  // HANDLE
};
#else
using Mutex = std::mutex;
#endif

}  // namespace ferrolt::platform
