#include <windows.h>

#include "platform/Mutex.h"

namespace ferrolt::platform {
namespace {

constexpr BOOL kNotOwned = FALSE;

// A mutex whose last owner ended without releasing it is still handed over.
bool Acquired(DWORD waited) { return waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED; }

}  // namespace

Mutex::Mutex() : handle_(CreateMutexA(nullptr, kNotOwned, nullptr)) {}

Mutex::~Mutex() {
  if (handle_ != nullptr) CloseHandle(static_cast<HANDLE>(handle_));
}

void Mutex::lock() {
  if (handle_ != nullptr) WaitForSingleObject(static_cast<HANDLE>(handle_), INFINITE);
}

bool Mutex::try_lock() { return handle_ != nullptr && Acquired(WaitForSingleObject(static_cast<HANDLE>(handle_), 0)); }

void Mutex::unlock() {
  if (handle_ != nullptr) ReleaseMutex(static_cast<HANDLE>(handle_));
}

}  // namespace ferrolt::platform
