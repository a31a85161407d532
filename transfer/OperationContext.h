// What a worker works with: the open link, the running flag it obeys, the
// teardown flag, the response reader's state, the reporters and the console
// it prints on. The operation runner builds one per launch; the workers of
// admin/ and transfer/ take it explicitly, so each can be read and run on its
// own.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

#include "link/Callbacks.h"
#include "link/ConsoleSink.h"
#include "link/ResponseReader.h"
#include "link/UsbLink.h"
#include "transfer/OperationOutcome.h"

namespace ferrolt {

struct OperationContext {
  UsbLink& link;
  // Cleared by a cancel; the only stop signal a worker's exchange obeys.
  std::atomic<bool>& running;
  // Set at process teardown: every loop that keeps no bound of its own ends.
  const std::atomic<bool>& tearingDown;
  // NackedPacketNumber and ReaderDone for the upgrade.
  ReaderState& reader;
  // Taken by the upgrade sender for each packet step.
  std::mutex& linkMutex;
  // Never null: a caller that gave none has reporters that do nothing.
  IProgressChangeCallBack& progress;
  ILogMessageCallBack& log;
  ConsoleSink& console;
  // What the worker reached, for the opt-in exit status.
  OperationOutcome& outcome;
  // An upload reads its file back from the device and compares.
  bool readBackUpload;

  bool Running() const { return running.load(); }
  bool TearingDown() const { return tearingDown.load(); }
  // A cancel or the teardown: a wait or a retry ends early.
  bool Stopped() const { return !Running() || TearingDown(); }

  // ConnectDevice with the device's ids, logging a failure.
  bool Connect() const;
  // CloseDevice, a pause of limits::kReconnectPause that a stop cuts short,
  // ConnectDevice. False when stopped, or, after the console line of a
  // failed open, when the link could not be reopened.
  bool Reconnect() const;
  // The pause; false when a stop cut it short.
  bool PauseUnlessStopped(std::chrono::milliseconds pause) const;
  // A worker's way out: CloseDevice, then clear the running flag. EndDone
  // is the way out of an exchange that reached its end.
  void End() const;
  void EndDone() const;
  // The read of the download loops: a failed read is retried after
  // limits::kFailedReadPause; false, after one log line, once nothing has
  // moved the operation on for limits::kDeviceSilenceLimit since lastProgress
  // (blocks the caller threw away do not count), or the process tears down.
  bool ReadWithinSilenceLimit(uint8_t* block, std::chrono::steady_clock::time_point lastProgress) const;
  // The one log line of an operation that ends because the device has sent
  // nothing for limits::kDeviceSilenceLimit.
  void ReportDeviceSilence() const;
  // The console line of a link that could not be opened.
  void ReportOpenFailure() const;
};

}  // namespace ferrolt
