// The device's side of a download: a start reply with the file's size and
// packet count, the file in numbered data packets, and an end reply. Blocks
// are produced lazily, a few at a time, so a long file never sits in the IN
// queue; the reply faults of the fault plan are applied here.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "devsim/Service.h"

namespace ferrolt::devsim {

struct StreamTexts {
  uint8_t type;
  const char* start;  // "%d %d" follow it: size, packet count
  const char* end;
  // Whether the bad-sequence fault applies (only the log stream is checked).
  bool sequenceFaults;
};

class ReplyStream {
 public:
  explicit ReplyStream(StreamTexts texts) : texts_(texts) {}

  // Starts streaming the file; a file that cannot be read is announced with
  // 0 0 and followed at once by the end reply. A stream already running is
  // dropped.
  void Begin(const std::filesystem::path& source, DeviceContext& device);
  // Drops the stream (the host's link went away).
  void Stop();
  bool Active() const { return phase_ != Phase::Idle; }
  // Queues blocks while the IN queue is short.
  void Pump(DeviceContext& device);

 private:
  enum class Phase { Idle, Start, Data, End };
  Block NextBlock(DeviceContext& device);
  Block DataBlock(const FaultPlan& faults);
  // True the first time a listed fault fires for packet number.
  bool FiresOnce(const FaultPlan& faults, const std::string& name, long long number);

  const StreamTexts texts_;
  Phase phase_ = Phase::Idle;
  std::ifstream file_;
  int32_t size_ = 0;
  int32_t total_ = 0;
  int32_t next_ = 0;
  bool noiseDue_ = false;
  // Faults that fire once: "name:number" pairs already used.
  std::set<std::string> fired_;
};

}  // namespace ferrolt::devsim
