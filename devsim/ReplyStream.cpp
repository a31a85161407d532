#include "devsim/ReplyStream.h"

#include <algorithm>
#include <cstdio>
#include <limits>

#include "devsim/DevicePackets.h"

namespace ferrolt::devsim {

namespace {

// How many IN blocks the stream keeps queued ahead of the host: enough to
// keep the link busy between two polls, little enough that a long file never
// sits in memory.
constexpr size_t kQueueAhead = 256;
// The length byte a long-length packet carries.
constexpr uint8_t kLongLength = 200;
// Every this many data packets an interleave fault slips in another type.
constexpr int32_t kNoiseEvery = 5;

bool Listed(const FaultPlan& faults, const std::string& name, long long number) {
  const auto numbers = faults.Numbers(name);
  return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

}  // namespace

void ReplyStream::Begin(const std::filesystem::path& source, DeviceContext& device) {
  Stop();
  std::error_code error;
  const bool regular = std::filesystem::is_regular_file(source, error);
  const auto bytes = regular ? std::filesystem::file_size(source, error) : 0;
  if (regular && !error) file_.open(source, std::ios::binary);
  if (file_.is_open() && bytes <= static_cast<uintmax_t>(std::numeric_limits<int32_t>::max())) {
    size_ = static_cast<int32_t>(bytes);
  } else {
    file_.close();
    size_ = 0;
  }
  total_ = PacketCountFor(size_);
  next_ = 0;
  noiseDue_ = false;
  phase_ = Phase::Start;
  device.Note(std::string("stream ") + texts_.start + " " + std::to_string(size_) + " " + std::to_string(total_) +
              (file_.is_open() ? "" : " (no such file)"));
}

void ReplyStream::Stop() {
  if (file_.is_open()) file_.close();
  phase_ = Phase::Idle;
}

void ReplyStream::Pump(DeviceContext& device) {
  while (Active() && device.QueuedInBlocks() < kQueueAhead) device.Send(NextBlock(device));
}

Block ReplyStream::NextBlock(DeviceContext& device) {
  const FaultPlan& faults = device.Faults();
  switch (phase_) {
    case Phase::Start: {
      phase_ = total_ > 0 ? Phase::Data : Phase::End;
      if (faults.Has("bad-start-numbers")) return MakeTextPacket(texts_.type, std::string(texts_.start) + " x y");
      return MakeTextPacket(texts_.type,
                            std::string(texts_.start) + " " + std::to_string(size_) + " " + std::to_string(total_));
    }
    case Phase::Data: {
      if (noiseDue_) {
        noiseDue_ = false;
        return MakeTextPacket(kTypeCli, "interleaved noise");
      }
      return DataBlock(faults);
    }
    case Phase::End:
    case Phase::Idle:
      break;
  }
  Stop();
  device.Note(std::string("stream ") + texts_.end);
  return MakeTextPacket(texts_.type, texts_.end);
}

Block ReplyStream::DataBlock(const FaultPlan& faults) {
  uint8_t chunk[kPayloadSize] = {};
  file_.read(reinterpret_cast<char*>(chunk), kPayloadSize);
  const size_t got = static_cast<size_t>(file_.gcount());
  const int32_t number = next_++;
  uint32_t wireNumber = static_cast<uint32_t>(number);
  const bool breakSequence = texts_.sequenceFaults && FiresOnce(faults, "bad-sequence", number);
  if (breakSequence) wireNumber = static_cast<uint32_t>(total_) + 1;
  Block block = MakePacket(texts_.type, wireNumber, chunk, got);
  if (Listed(faults, "long-length", number)) {
    block[kLengthOffset] = kLongLength;
    block[kCrcOffset] = Crc8(block.data(), kCrcOffset);
  }
  if (FiresOnce(faults, "corrupt-reply-crc", number)) CorruptCrc(block);
  noiseDue_ = faults.Has("interleave") && number % kNoiseEvery == 0;
  // A broken sequence ends this attempt: the host asks again from the start.
  if (breakSequence || next_ == total_) phase_ = breakSequence ? Phase::Idle : Phase::End;
  if (breakSequence) file_.close();
  return block;
}

bool ReplyStream::FiresOnce(const FaultPlan& faults, const std::string& name, long long number) {
  if (!Listed(faults, name, number)) return false;
  return fired_.insert(name + ":" + std::to_string(number)).second;
}

}  // namespace ferrolt::devsim
