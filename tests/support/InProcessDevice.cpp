#include "tests/support/InProcessDevice.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace ferrolt::test {

using platform::Transfer;
using WriteHook = std::function<bool(const DeviceBlock&)>;

namespace {

// How often the device's clock looks at it when nothing falls due sooner,
// and the least it sleeps, so a block waiting for a read does not spin it.
constexpr std::chrono::milliseconds kIdleTick{10};
constexpr std::chrono::milliseconds kLeastTick{1};

struct Packet {
  DeviceBlock block;
  uint32_t length;
  bool succeeded;
};

struct Pending {
  const void* owner;
  std::shared_ptr<Transfer> transfer;
  DeviceBlock block{};
};

}  // namespace

struct InProcessDevice::State {
  explicit State(std::unique_ptr<DeviceLogic> behind) : logic(std::move(behind)) {
    if (logic) clock = std::thread([this] { Tick(); });
  }
  ~State() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
    }
    changed.notify_all();
    if (clock.joinable()) clock.join();
  }

  void Tick() {
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
      Step();
      const auto now = DeviceLogic::Clock::now();
      auto wake = now + kIdleTick;
      if (const auto due = logic->NextDue()) wake = std::clamp(*due, now + kLeastTick, wake);
      changed.wait_until(lock, wake);
    }
  }

  // Lets the device act on what is due: OUT blocks it now takes, completions
  // it reports, IN blocks for pending reads. The lock is held.
  void Step() {
    if (logic) {
      while (!held.empty() && !logic->DroppedLink() && logic->TakesOutBlocks() && !AwaitsNextRead()) {
        inFlight.push_back(held.front());
        held.pop_front();
        logic->OutBlock(inFlight.back().block);
      }
      owedCompletions += logic->Poll();
      if (link != nullptr && logic->DroppedLink()) EndLink(link);
    }
    while (!stalled && owedCompletions > 0 && !inFlight.empty()) {
      --owedCompletions;
      const auto& write = inFlight.front().transfer;
      write->Complete(true, nullptr, write->RequestedLength());
      inFlight.pop_front();
    }
    Packet packet{};
    while (!reads.empty() && NextPacket(packet)) {
      reads.front().transfer->Complete(packet.succeeded, packet.block.data(), packet.length);
      reads.pop_front();
      takenBy = readsStarted;
    }
  }

  bool AwaitsNextRead() const { return paceOutByReads && takenBy > 0 && takenBy == readsStarted; }

  bool NextPacket(Packet& packet) {
    if (!outgoing.empty()) {
      packet = outgoing.front();
      outgoing.pop_front();
      return true;
    }
    if (!logic) return false;
    const auto block = logic->PopInBlock();
    if (block) packet = {*block, static_cast<uint32_t>(block->size()), true};
    return block.has_value();
  }

  // Fails the pending transfers of owner (all, for null).
  void FailPending(const void* owner) {
    for (auto* list : {&held, &inFlight, &reads}) {
      for (auto it = list->begin(); it != list->end();) {
        if (owner == nullptr || it->owner == owner) {
          it->transfer->Complete(false, nullptr, 0);
          it = list->erase(it);
        } else {
          ++it;
        }
      }
    }
  }

  // The device stops serving a link: its transfers fail, and the completions
  // the device still owed them are gone with it.
  void EndLink(const void* owner) {
    FailPending(owner);
    owedCompletions = 0;
    link = nullptr;
    if (logic) logic->LinkClosed();
  }

  mutable std::mutex mutex;
  std::condition_variable changed;
  std::unique_ptr<DeviceLogic> logic;
  bool stopping = false;

  bool listed = true;
  uint32_t lastError = platform::kErrorNoMoreItems;
  std::vector<std::string> paths{kDevicePath};
  std::vector<std::string> registeredPaths;
  OpenStage failAt = OpenStage::None;
  std::vector<platform::PipeInfo> endpoints{{platform::PipeType::Bulk, kDeviceInPipe, 64},
                                            {platform::PipeType::Bulk, kDeviceOutPipe, 64}};
  uint8_t speed = platform::kSpeedHigh;
  bool speedFails = false;
  uint32_t speedError = 0;

  bool stalled = false;
  bool unplugged = false;
  // Shared, not copied per write, so that a hook keeps its own state.
  std::shared_ptr<WriteHook> onWrite;
  std::function<void()> readWhenEmpty;
  std::deque<Pending> held;      // writes whose block the device has not taken
  std::deque<Pending> inFlight;  // writes whose block it took, completion to come
  std::deque<Pending> reads;
  std::deque<Packet> outgoing;  // sent by hand, not yet read
  size_t owedCompletions = 0;
  const void* link = nullptr;  // the connection the device serves

  int listCount = 0;
  int registeredSearches = 0;
  std::vector<std::string> openedPaths;
  std::vector<DeviceBlock> written;
  std::vector<uint8_t> flushed;
  int readsStarted = 0;
  int takenBy = 0;  // the read that took the last IN block
  bool paceOutByReads = false;
  int liveConnections = 0;

  std::thread clock;  // last: it starts once the rest is built
};

namespace {

using State = InProcessDevice::State;

// One member of the device's state, read or set under its lock.
template <typename Value>
Value Get(State& state, Value State::*member) {
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.*member;
}

template <typename Value, typename Given>
void Set(State& state, Value State::*member, Given&& value) {
  std::lock_guard<std::mutex> lock(state.mutex);
  state.*member = std::forward<Given>(value);
}

class Connection : public platform::DeviceConnection {
 public:
  explicit Connection(std::shared_ptr<State> state) : state_(std::move(state)) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    ++state_->liveConnections;
    if (state_->link != nullptr) state_->EndLink(state_->link);
    state_->link = this;
    if (state_->logic) state_->logic->LinkOpened();
  }

  ~Connection() override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    --state_->liveConnections;
    if (state_->link == this)
      state_->EndLink(this);
    else
      state_->FailPending(this);
  }

  bool Initialize() override { return Stage() != OpenStage::Initialize; }

  bool QueryInterfaceSettings(uint8_t& endpointCount) override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    endpointCount = static_cast<uint8_t>(state_->endpoints.size());
    return state_->failAt != OpenStage::InterfaceSettings;
  }

  bool QueryPipe(uint8_t endpointIndex, platform::PipeInfo& pipe) override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (state_->failAt == OpenStage::PipeQuery || endpointIndex >= state_->endpoints.size()) return false;
    pipe = state_->endpoints[endpointIndex];
    return true;
  }

  bool QueryDeviceSpeed(uint8_t& speed, uint32_t& error) override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    error = state_->speedError;
    speed = state_->speed;
    return !state_->speedFails;
  }

  std::shared_ptr<Transfer> StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) override {
    DeviceBlock block{};
    std::copy_n(data, std::min<size_t>(length, block.size()), block.begin());
    std::shared_ptr<WriteHook> hook;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      if (!Serving() || pipeId != kDeviceOutPipe) return nullptr;
      state_->written.push_back(block);
      hook = state_->onWrite;
    }
    auto transfer = std::make_shared<Transfer>(length);
    const bool reaches = !hook || (*hook)(block);
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (!reaches || !Serving()) {
      transfer->Complete(false, nullptr, 0);
    } else if (state_->logic) {
      state_->held.push_back({this, transfer, block});
      state_->Step();
    } else {
      state_->inFlight.push_back({this, transfer, block});
      ++state_->owedCompletions;
      state_->Step();
    }
    return transfer;
  }

  std::shared_ptr<Transfer> StartRead(uint8_t pipeId, uint32_t length) override {
    auto transfer = std::make_shared<Transfer>(length);
    std::function<void()> whenEmpty;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      if (!Serving() || pipeId != kDeviceInPipe) return nullptr;
      ++state_->readsStarted;
      state_->reads.push_back({this, transfer});
      state_->Step();
      state_->changed.notify_all();
      if (!transfer->IsComplete() && state_->readWhenEmpty) {
        state_->reads.pop_back();
        whenEmpty = state_->readWhenEmpty;
      }
    }
    if (whenEmpty) {
      whenEmpty();
      transfer->Complete(false, nullptr, 0);
    }
    return transfer;
  }

  // A USB host holds no IN data of its own: a flush aborts what is pending
  // on the pipe, and the device keeps what it has not sent.
  bool FlushPipe(uint8_t pipeId) override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->flushed.push_back(pipeId);
    auto& list = pipeId == kDeviceInPipe ? state_->reads : state_->held;
    for (const auto& pending : list)
      if (pending.owner == this) pending.transfer->Complete(false, nullptr, 0);
    list.erase(std::remove_if(list.begin(), list.end(), [this](const Pending& p) { return p.owner == this; }),
               list.end());
    return true;
  }

 private:
  OpenStage Stage() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->failAt;
  }
  bool Serving() const { return !state_->unplugged && state_->link == this; }

  std::shared_ptr<State> state_;
};

}  // namespace

InProcessDevice::InProcessDevice() : InProcessDevice(nullptr) {}

InProcessDevice::InProcessDevice(std::unique_ptr<DeviceLogic> logic)
    : state_(std::make_shared<State>(std::move(logic))) {}

void InProcessDevice::SetPaths(std::vector<std::string> paths, uint32_t lastError) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->listed = true;
  state_->paths = std::move(paths);
  state_->lastError = lastError;
}

void InProcessDevice::SetRegisteredPaths(std::vector<std::string> paths) {
  Set(*state_, &State::registeredPaths, std::move(paths));
}

void InProcessDevice::FailListing(uint32_t error) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->listed = false;
  state_->lastError = error;
}

void InProcessDevice::FailAt(OpenStage stage) { Set(*state_, &State::failAt, stage); }

void InProcessDevice::SetEndpoints(std::vector<platform::PipeInfo> endpoints) {
  Set(*state_, &State::endpoints, std::move(endpoints));
}

void InProcessDevice::SetSpeed(uint8_t speed) { Set(*state_, &State::speed, speed); }

void InProcessDevice::FailSpeedQuery(uint32_t error) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->speedFails = true;
  state_->speedError = error;
}

void InProcessDevice::Stall(bool stalled) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->stalled = stalled;
  state_->Step();
}

void InProcessDevice::PaceOutByReads(bool paced) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->paceOutByReads = paced;
}

bool InProcessDevice::CompleteOldestWrite() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (state_->inFlight.empty()) return false;
  const auto& write = state_->inFlight.front().transfer;
  write->Complete(true, nullptr, write->RequestedLength());
  state_->inFlight.pop_front();
  if (state_->owedCompletions > 0) --state_->owedCompletions;
  return true;
}

void InProcessDevice::OnWrite(std::function<bool(const DeviceBlock&)> hook) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->onWrite = std::make_shared<WriteHook>(std::move(hook));
}

void InProcessDevice::Send(const DeviceBlock& block) { SendPacket(block, static_cast<uint32_t>(block.size())); }

void InProcessDevice::SendPacket(const DeviceBlock& block, uint32_t length, bool succeeded) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->outgoing.push_back({block, length, succeeded});
  state_->Step();
}

bool InProcessDevice::SendAndWaitTaken(const DeviceBlock& block, std::chrono::milliseconds bound) {
  Send(block);
  std::unique_lock<std::mutex> lock(state_->mutex);
  return state_->changed.wait_for(
      lock, bound, [&] { return state_->outgoing.empty() && state_->readsStarted > state_->takenBy; });
}

void InProcessDevice::OnReadWhenEmpty(std::function<void()> hook) {
  Set(*state_, &State::readWhenEmpty, std::move(hook));
}

void InProcessDevice::Unplug() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->unplugged = true;
  if (state_->link != nullptr) state_->EndLink(state_->link);
}

int InProcessDevice::ListCount() const { return Get(*state_, &State::listCount); }

int InProcessDevice::RegisteredSearches() const { return Get(*state_, &State::registeredSearches); }

std::vector<std::string> InProcessDevice::OpenedPaths() const { return Get(*state_, &State::openedPaths); }

std::vector<DeviceBlock> InProcessDevice::Written() const { return Get(*state_, &State::written); }

std::vector<uint8_t> InProcessDevice::FlushedPipes() const { return Get(*state_, &State::flushed); }

int InProcessDevice::ReadsStarted() const { return Get(*state_, &State::readsStarted); }

int InProcessDevice::LiveConnections() const { return Get(*state_, &State::liveConnections); }

platform::InterfaceListing InProcessDevice::ListInterfaces() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  ++state_->listCount;
  platform::InterfaceListing listing;
  listing.listed = state_->listed;
  listing.lastError = state_->lastError;
  if (state_->listed && !state_->unplugged) listing.paths = state_->paths;
  return listing;
}

std::vector<std::string> InProcessDevice::ListRegisteredInterfaces(const platform::UsbInterfaceId& /*wanted*/) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  ++state_->registeredSearches;
  return state_->registeredPaths;
}

std::unique_ptr<platform::DeviceConnection> InProcessDevice::Open(const std::string& path) {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->openedPaths.push_back(path);
    if (state_->failAt == OpenStage::Open || state_->unplugged) return nullptr;
  }
  return std::make_unique<Connection>(state_);
}

}  // namespace ferrolt::test
