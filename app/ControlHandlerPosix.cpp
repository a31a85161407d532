#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "app/ConsoleReporters.h"
#include "app/ControlHandler.h"
#include "app/GlobalDeviceAdmin.h"

namespace ferrolt {

namespace {

sigset_t ControlSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGQUIT);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  return signals;
}

void CancelWithOwnReporter() {
  CLogMessageCallback log;
  GlobalDeviceAdmin().CancelOperation(&log);
}

void* CancelThreadMain(void*) {
  CancelWithOwnReporter();
  return nullptr;
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

// Each cancel waits for the worker on a thread of its own, so a second
// Ctrl+Break (or Ctrl+C) is still heard while the first cancel waits.
void RequestCancel() {
  std::fputs("\nCancel operation has been requested.\n", stdout);
  std::fflush(stdout);
  if (!StartDetachedThread(CancelThreadMain)) CancelWithOwnReporter();
}

void* HandlerThreadMain(void*) {
  const sigset_t signals = ControlSignals();
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal == SIGQUIT)
      RequestCancel();
    else
      std::exit(kControlEventExitStatus);
  }
  return nullptr;
}

}  // namespace

void PrepareControlHandler() {
  const sigset_t signals = ControlSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool InstallControlHandler() {
  PrepareControlHandler();
  return StartDetachedThread(HandlerThreadMain);
}

}  // namespace ferrolt
