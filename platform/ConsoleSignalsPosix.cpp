#include <pthread.h>
#include <signal.h>

#include <atomic>

#include "platform/ConsoleSignals.h"

namespace ferrolt::platform {

namespace {

std::atomic<ConsoleEventHandler> installedHandler{nullptr};

sigset_t ControlSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGQUIT);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  return signals;
}

bool StartDetachedThread(void* (*body)(void*)) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, body, nullptr) == 0;
  pthread_attr_destroy(&attributes);
  return started;
}

void* BreakThreadMain(void*) {
  installedHandler.load()(ConsoleEvent::Break);
  return nullptr;
}

// Each Break is handled on a thread of its own, as Windows does, so a second
// Ctrl+Break (or Ctrl+C) is still heard while the first one's handler waits.
void* SignalThreadMain(void*) {
  const sigset_t signals = ControlSignals();
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal != SIGQUIT)
      installedHandler.load()(ConsoleEvent::Other);
    else if (!StartDetachedThread(BreakThreadMain))
      BreakThreadMain(nullptr);
  }
  return nullptr;
}

}  // namespace

void PrepareConsoleSignals() {
  const sigset_t signals = ControlSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // Past a file-size limit a write fails (EFBIG) and the download says so,
  // instead of the run being killed.
  signal(SIGXFSZ, SIG_IGN);
}

bool HandleConsoleSignals(ConsoleEventHandler handler) {
  PrepareConsoleSignals();
  installedHandler.store(handler);
  return StartDetachedThread(SignalThreadMain);
}

}  // namespace ferrolt::platform
