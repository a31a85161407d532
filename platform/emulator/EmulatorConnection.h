// One opened emulator link: the connected socket and the thread that reads
// the device's frames from it.
#pragma once

#include <array>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/DeviceBackend.h"
#include "platform/Event.h"
#include "platform/emulator/EmulatorProtocol.h"
#include "platform/emulator/Socket.h"

namespace ferrolt::platform::emulator {

// Bytes the reader asks the socket for at once.
inline constexpr size_t kReceiveChunk = 4096;

class EmulatorConnection final : public DeviceConnection {
 public:
  // Takes over a socket whose hello has been read.
  EmulatorConnection(UniqueSocket socket, const Hello& hello);
  ~EmulatorConnection() override;
  EmulatorConnection(const EmulatorConnection&) = delete;
  EmulatorConnection& operator=(const EmulatorConnection&) = delete;

  bool Initialize() override;
  bool QueryInterfaceSettings(uint8_t& endpointCount) override;
  bool QueryPipe(uint8_t endpointIndex, PipeInfo& pipe) override;
  bool QueryDeviceSpeed(uint8_t& speed, uint32_t& error) override;
  std::shared_ptr<Transfer> StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) override;
  // The frames of all the writes in one send: the device takes them in one
  // receive, and answers them in one.
  std::vector<std::shared_ptr<Transfer>> StartWrites(uint8_t pipeId, const uint8_t* blocks, size_t count,
                                                     uint32_t length) override;
  std::shared_ptr<Transfer> StartRead(uint8_t pipeId, uint32_t length) override;
  bool FlushPipe(uint8_t pipeId) override;

 private:
  void ReadFrames();
  bool ReadFrame();
  // Exactly size bytes of the device's stream, through receiveBuffer_.
  bool Receive(uint8_t* data, size_t size);
  void CompleteOldestWrite();
  bool QueueBlock(const Block& block);
  void StopReading();
  // The device has gone: every outstanding transfer fails, no new one starts.
  void EndLink();
  void FailOutstandingLocked();

  UniqueSocket socket_;
  const Hello hello_;
  // Ends the reader's receive: set when the connection closes or breaks.
  Event stopReading_;

  // Held across queueing a write and sending its frame, so frames leave whole
  // and in the order of the write queue that the device's A frames follow.
  std::mutex sendMutex_;

  std::mutex mutex_;  // guards every field below
  std::condition_variable queueSpace_;
  bool removed_ = false;
  bool closing_ = false;
  // Every write sent and not yet acknowledged, oldest first, including those
  // whose wait has ended or that a flush failed: each A belongs to one of them.
  std::deque<std::shared_ptr<Transfer>> sentWrites_;
  std::deque<std::shared_ptr<Transfer>> pendingReads_;
  std::deque<Block> receivedBlocks_;

  // What the reader has received and not yet taken: one receive brings every
  // frame that has arrived, not one per frame. Used by the reader alone.
  std::array<uint8_t, kReceiveChunk> receiveBuffer_{};
  size_t received_ = 0;
  size_t taken_ = 0;

  std::thread reader_;  // last: it starts once everything it uses exists
};

}  // namespace ferrolt::platform::emulator
