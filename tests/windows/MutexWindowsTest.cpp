#include "platform/Mutex.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>

namespace ferrolt::platform {
namespace {

// Given the Win32 mutex, one thread's hold keeps the others out until released.
TEST(MutexWindowsTest, ExcludesOtherThreadsUntilReleased) {
  Mutex mutex;
  std::unique_lock<Mutex> held(mutex);
  EXPECT_FALSE(std::async(std::launch::async, [&] { return mutex.try_lock(); }).get());
  held.unlock();
  EXPECT_TRUE(std::async(std::launch::async, [&] {
                const bool taken = mutex.try_lock();
                if (taken) mutex.unlock();
                return taken;
              }).get());
}

}  // namespace
}  // namespace ferrolt::platform
