#include "tests/support/FakeBackend.h"

#include <algorithm>
#include <condition_variable>

namespace ferrolt::test {

using platform::Transfer;

struct Pending {
  const void* owner;
  uint8_t pipe;
  std::shared_ptr<Transfer> transfer;
};

struct FakeBackend::Device {
  mutable std::mutex mutex;
  std::condition_variable readStarted;
  bool listed = true;
  uint32_t lastError = platform::kErrorNoMoreItems;
  std::vector<std::string> paths{kFakeDevicePath};
  OpenStage failAt = OpenStage::None;
  std::vector<platform::PipeInfo> endpoints{{platform::PipeType::Bulk, kFakeInPipe, 64},
                                            {platform::PipeType::Bulk, kFakeOutPipe, 64}};
  uint8_t speed = platform::kSpeedHigh;
  bool speedFails = false;
  uint32_t speedError = 0;
  WriteOutcome writeOutcome = WriteOutcome::Accept;
  // Shared, not copied per write, so that a hook keeps its own state.
  std::shared_ptr<WriteHook> onWrite;
  // What the next reads complete with: a block, or a short packet (length
  // under 64), or a read that ends failed with what it brought.
  struct Packet {
    FakeBlock block;
    uint32_t length;
    bool succeeded;
  };
  std::deque<Packet> inBlocks;
  // Sent once the device has taken its next OUT block.
  std::vector<FakeBlock> replies;
  std::vector<std::string> registeredPaths;
  int registeredSearches = 0;
  std::function<void()> readWhenEmpty;
  bool removed = false;

  std::deque<Pending> writes;
  std::deque<Pending> reads;

  int listCount = 0;
  std::vector<std::string> openedPaths;
  std::vector<FakeBlock> written;
  std::vector<uint8_t> writePipes;
  std::vector<uint8_t> flushed;
  int readsStarted = 0;
  int takenBy = 0;  // the read that took the last IN block
  int liveConnections = 0;

  // Hands a packet to the oldest waiting read, or queues it.
  void Send(const Packet& packet) {
    std::shared_ptr<Transfer> waiting;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (reads.empty()) {
        inBlocks.push_back(packet);
        return;
      }
      waiting = reads.front().transfer;
      reads.pop_front();
      takenBy = readsStarted;
    }
    waiting->Complete(packet.succeeded, packet.block.data(), packet.length);
  }
  void Send(const FakeBlock& block) { Send({block, static_cast<uint32_t>(block.size()), true}); }

  // Takes the transfers matching pred out of list, for completing outside the lock.
  template <typename Pred>
  static std::vector<std::shared_ptr<Transfer>> Take(std::deque<Pending>& list, Pred pred) {
    std::vector<std::shared_ptr<Transfer>> taken;
    for (auto it = list.begin(); it != list.end();) {
      if (pred(*it)) {
        taken.push_back(it->transfer);
        it = list.erase(it);
      } else {
        ++it;
      }
    }
    return taken;
  }
};

namespace {

void FailAll(const std::vector<std::shared_ptr<Transfer>>& transfers) {
  for (const auto& transfer : transfers) transfer->Complete(false, nullptr, 0);
}

class FakeConnection : public platform::DeviceConnection {
 public:
  explicit FakeConnection(std::shared_ptr<FakeBackend::Device> device) : device_(std::move(device)) {
    std::lock_guard<std::mutex> lock(device_->mutex);
    ++device_->liveConnections;
  }

  ~FakeConnection() override {
    std::vector<std::shared_ptr<Transfer>> aborted;
    {
      std::lock_guard<std::mutex> lock(device_->mutex);
      --device_->liveConnections;
      const auto mine = [this](const Pending& p) { return p.owner == this; };
      aborted = FakeBackend::Device::Take(device_->writes, mine);
      const auto reads = FakeBackend::Device::Take(device_->reads, mine);
      aborted.insert(aborted.end(), reads.begin(), reads.end());
    }
    FailAll(aborted);
  }

  bool Initialize() override { return Stage() != OpenStage::Initialize; }

  bool QueryInterfaceSettings(uint8_t& endpointCount) override {
    if (Stage() == OpenStage::InterfaceSettings) return false;
    std::lock_guard<std::mutex> lock(device_->mutex);
    endpointCount = static_cast<uint8_t>(device_->endpoints.size());
    return true;
  }

  bool QueryPipe(uint8_t endpointIndex, platform::PipeInfo& pipe) override {
    if (Stage() == OpenStage::PipeQuery) return false;
    std::lock_guard<std::mutex> lock(device_->mutex);
    if (endpointIndex >= device_->endpoints.size()) return false;
    pipe = device_->endpoints[endpointIndex];
    return true;
  }

  bool QueryDeviceSpeed(uint8_t& speed, uint32_t& error) override {
    std::lock_guard<std::mutex> lock(device_->mutex);
    error = device_->speedError;
    speed = device_->speed;
    return !device_->speedFails;
  }

  std::shared_ptr<Transfer> StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) override {
    auto transfer = std::make_shared<Transfer>(length);
    FakeBlock block{};
    std::copy_n(data, std::min<size_t>(length, block.size()), block.begin());
    WriteOutcome outcome;
    std::shared_ptr<WriteHook> hook;
    std::vector<FakeBlock> replies;
    {
      std::lock_guard<std::mutex> lock(device_->mutex);
      if (device_->removed) return nullptr;
      device_->written.push_back(block);
      device_->writePipes.push_back(pipeId);
      outcome = device_->writeOutcome;
      hook = device_->onWrite;
      replies.swap(device_->replies);
    }
    for (const FakeBlock& reply : replies) device_->Send(reply);
    if (hook && !(*hook)(block)) outcome = WriteOutcome::Fail;
    if (outcome == WriteOutcome::Withhold) {
      std::lock_guard<std::mutex> lock(device_->mutex);
      device_->writes.push_back({this, pipeId, transfer});
    } else {
      const bool accepted = outcome == WriteOutcome::Accept;
      transfer->Complete(accepted, nullptr, accepted ? length : 0);
    }
    return transfer;
  }

  std::shared_ptr<Transfer> StartRead(uint8_t pipeId, uint32_t length) override {
    auto transfer = std::make_shared<Transfer>(length);
    std::function<void()> hook;
    {
      std::lock_guard<std::mutex> lock(device_->mutex);
      if (device_->removed) return nullptr;
      ++device_->readsStarted;
      device_->readStarted.notify_all();
      if (!device_->inBlocks.empty()) {
        const auto packet = device_->inBlocks.front();
        device_->inBlocks.pop_front();
        device_->takenBy = device_->readsStarted;
        transfer->Complete(packet.succeeded, packet.block.data(), packet.length);
        return transfer;
      }
      hook = device_->readWhenEmpty;
      if (!hook) device_->reads.push_back({this, pipeId, transfer});
    }
    if (hook) {
      hook();
      transfer->Complete(false, nullptr, 0);
    }
    return transfer;
  }

  bool FlushPipe(uint8_t pipeId) override {
    std::vector<std::shared_ptr<Transfer>> aborted;
    {
      std::lock_guard<std::mutex> lock(device_->mutex);
      device_->flushed.push_back(pipeId);
      if (pipeId & 0x80) device_->inBlocks.clear();
      const auto onPipe = [this, pipeId](const Pending& p) { return p.owner == this && p.pipe == pipeId; };
      aborted = FakeBackend::Device::Take(pipeId & 0x80 ? device_->reads : device_->writes, onPipe);
    }
    FailAll(aborted);
    return true;
  }

 private:
  OpenStage Stage() const {
    std::lock_guard<std::mutex> lock(device_->mutex);
    return device_->failAt;
  }

  std::shared_ptr<FakeBackend::Device> device_;
};

}  // namespace

FakeBackend::FakeBackend() : device_(std::make_shared<Device>()) {}

void FakeBackend::SetPaths(std::vector<std::string> paths, uint32_t lastError) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->listed = true;
  device_->paths = std::move(paths);
  device_->lastError = lastError;
}

void FakeBackend::FailListing(uint32_t error) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->listed = false;
  device_->lastError = error;
}

void FakeBackend::FailAt(OpenStage stage) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->failAt = stage;
}

void FakeBackend::SetEndpoints(std::vector<platform::PipeInfo> endpoints) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->endpoints = std::move(endpoints);
}

void FakeBackend::SetSpeed(uint8_t speed) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->speed = speed;
}

void FakeBackend::FailSpeedQuery(uint32_t error) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->speedFails = true;
  device_->speedError = error;
}

void FakeBackend::SetWriteOutcome(WriteOutcome outcome) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->writeOutcome = outcome;
}

bool FakeBackend::CompleteOldestWrite() {
  std::shared_ptr<Transfer> oldest;
  {
    std::lock_guard<std::mutex> lock(device_->mutex);
    if (device_->writes.empty()) return false;
    oldest = device_->writes.front().transfer;
    device_->writes.pop_front();
  }
  oldest->Complete(true, nullptr, oldest->RequestedLength());
  return true;
}

void FakeBackend::QueueInBlock(const FakeBlock& block) { device_->Send(block); }

void FakeBackend::QueueInPacket(const FakeBlock& block, uint32_t length, bool succeeded) {
  device_->Send({block, length, succeeded});
}

void FakeBackend::SetRegisteredPaths(std::vector<std::string> paths) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->registeredPaths = std::move(paths);
}

int FakeBackend::RegisteredSearches() const {
  std::lock_guard<std::mutex> lock(device_->mutex);
  return device_->registeredSearches;
}

std::vector<std::string> FakeBackend::ListRegisteredInterfaces(const platform::UsbInterfaceId& /*wanted*/) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  ++device_->registeredSearches;
  return device_->registeredPaths;
}

void FakeBackend::ReplyToNextWrite(std::vector<FakeBlock> blocks) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->replies = std::move(blocks);
}

bool FakeBackend::QueueInBlockAndWait(const FakeBlock& block, std::chrono::milliseconds bound) {
  QueueInBlock(block);
  std::unique_lock<std::mutex> lock(device_->mutex);
  return device_->readStarted.wait_for(
      lock, bound, [&] { return device_->inBlocks.empty() && device_->readsStarted > device_->takenBy; });
}

void FakeBackend::OnWrite(WriteHook hook) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->onWrite = std::make_shared<WriteHook>(std::move(hook));
}

void FakeBackend::OnReadWhenEmpty(std::function<void()> hook) {
  std::lock_guard<std::mutex> lock(device_->mutex);
  device_->readWhenEmpty = std::move(hook);
}

void FakeBackend::Remove() {
  std::vector<std::shared_ptr<Transfer>> aborted;
  {
    std::lock_guard<std::mutex> lock(device_->mutex);
    device_->removed = true;
    const auto all = [](const Pending&) { return true; };
    aborted = Device::Take(device_->writes, all);
    const auto reads = Device::Take(device_->reads, all);
    aborted.insert(aborted.end(), reads.begin(), reads.end());
  }
  FailAll(aborted);
}

int FakeBackend::ListCount() const {
  std::lock_guard<std::mutex> lock(device_->mutex);
  return device_->listCount;
}

std::vector<std::string> FakeBackend::OpenedPaths() const {
  std::lock_guard<std::mutex> lock(device_->mutex);
  return device_->openedPaths;
}

std::vector<FakeBlock> FakeBackend::Written() const {
  std::lock_guard<std::mutex> lock(device_->mutex);
  return device_->written;
}

std::vector<uint8_t> FakeBackend::WritePipes() const {
  std::lock_guard<std::mutex> lock(device_->mutex);
  return device_->writePipes;
}

std::vector<uint8_t> FakeBackend::FlushedPipes() const {
  std::lock_guard<std::mutex> lock(device_->mutex);
  return device_->flushed;
}

int FakeBackend::ReadsStarted() const {
  std::lock_guard<std::mutex> lock(device_->mutex);
  return device_->readsStarted;
}

int FakeBackend::LiveConnections() const {
  std::lock_guard<std::mutex> lock(device_->mutex);
  return device_->liveConnections;
}

platform::InterfaceListing FakeBackend::ListInterfaces() {
  std::lock_guard<std::mutex> lock(device_->mutex);
  ++device_->listCount;
  platform::InterfaceListing listing;
  listing.listed = device_->listed;
  listing.lastError = device_->lastError;
  if (device_->listed) listing.paths = device_->paths;
  return listing;
}

std::unique_ptr<platform::DeviceConnection> FakeBackend::Open(const std::string& path) {
  {
    std::lock_guard<std::mutex> lock(device_->mutex);
    device_->openedPaths.push_back(path);
    if (device_->failAt == OpenStage::Open || device_->removed) return nullptr;
  }
  return std::make_unique<FakeConnection>(device_);
}

}  // namespace ferrolt::test
