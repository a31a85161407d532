// The emulated device: its services, its root folder, its event log and the
// queue of IN blocks for the host. It has no transport of its own: a
// transport hands it OUT blocks, lets time pass (Poll), sends the write
// completions and IN blocks that fall due, and drops the link when told.
// Not thread-safe: one transport thread drives it.
#pragma once

#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/UsbCapture.h"
#include "devsim/FaultDice.h"
#include "devsim/LinkFaults.h"
#include "devsim/Service.h"

namespace ferrolt::devsim {

struct DeviceSettings {
  std::filesystem::path root;
  std::filesystem::path recordFile;  // empty: OUT blocks are not recorded
  std::filesystem::path eventsFile;  // empty: no event log file
  // Empty: no capture. Otherwise every block both ways, as the device
  // received and sent it, after the descriptors of traceModel.
  std::filesystem::path traceFile;
  capture::UsbDeviceModel traceModel;
  std::string initialVersion = "1.0.0";
  bool verbose = false;  // event lines also to stderr
  std::chrono::seconds cliTimeout{10};
  // CLI commands run by the host's /bin/sh instead of the built-in set.
  bool hostShell = false;
  FaultPlan faults;
};

class Device final : public DeviceContext {
 public:
  using Clock = std::chrono::steady_clock;

  // Prepares the root folder and opens the record and event files; null with
  // error set when that fails.
  static std::unique_ptr<Device> Create(const DeviceSettings& settings, std::string& error);

  // A host link opened: per-link counts start again.
  void OnLinkOpened();
  // The host link is gone: services drop their exchanges and pending
  // completions are discarded. Queued IN blocks stay, as on a real device,
  // which learns nothing of a host closing its handle: the next link gets them.
  void OnLinkClosed();
  // False while the device refuses OUT blocks (it answers them with NAKs). A
  // transport that can hold a block back, as USB does, keeps it until this
  // turns true; one that cannot (a W frame has reached the device) hands it
  // over, and its completion waits until the refusal ends.
  bool TakesOutBlocks() const;
  // One OUT block from the host: recorded, offered to the services, and
  // its completion scheduled (or withheld) as the link faults decide.
  void OnOutBlock(const Block& block);
  // Lets the services work as time passes.
  void Poll();
  // True while a service needs Poll soon.
  bool Busy() const;
  // Write completions due by now, in order; each is one completed OUT block.
  size_t TakeDueCompletions();
  // The oldest IN block, once it is due.
  std::optional<Block> PopInBlock();
  // Blocks popped for the host that never reached it (the host dropped the
  // transfer that carried them): back to the front of the queue, in order.
  void ReturnInBlocks(const std::vector<Block>& blocks);
  // The earliest time a completion or IN block falls due, if any is pending;
  // IN blocks count only while the host wants them.
  std::optional<Clock::time_point> NextDue(bool inBlocksWanted = true) const;
  // How long its transport may leave the device alone (a service is busy, or
  // a completion or IN block falls due); none: until the host sends something.
  std::optional<std::chrono::milliseconds> TimeUntilNeeded(bool inBlocksWanted = true) const;
  // True once the device has decided to drop the current host link.
  bool DropRequested() const { return dropRequested_; }

  // DeviceContext
  void Send(const Block& block) override;
  size_t QueuedInBlocks() const override { return inQueue_.size(); }
  const std::filesystem::path& Root() const override { return settings_.root; }
  std::filesystem::path DevicePathToLocal(const std::string& devicePath) const override;
  std::string Version() const override;
  void SetVersion(const std::string& version) override;
  const FaultPlan& Faults() const override { return settings_.faults; }
  bool FaultStrikes(const std::string& name) override;
  void Note(const std::string& line) override;

 private:
  struct Queued {
    Clock::time_point due;
    Block block;
  };

  explicit Device(const DeviceSettings& settings);
  bool PrepareRoot(std::string& error);
  bool OpenFiles(std::string& error);
  void Record(const Block& block);
  // One transfer of one block in the capture, OUT or IN.
  void Trace(uint8_t endpoint, const Block& block);
  void ScheduleCompletion();
  // Takes no OUT block for this long from now (a pause already running may
  // end later).
  void Pause(std::chrono::milliseconds length);
  // When the pause fault stops refusing OUT blocks; long past when none holds.
  Clock::time_point PauseEnd() const;

  DeviceSettings settings_;
  std::vector<std::unique_ptr<Service>> services_;
  LinkFaults linkFaults_;
  // The services' random faults, each with its own draws.
  std::map<std::string, FaultDice> serviceDice_;
  std::ofstream record_;
  std::ofstream events_;
  std::unique_ptr<capture::UsbCapture> trace_;
  std::deque<Clock::time_point> completions_;
  std::deque<Queued> inQueue_;
  // Set once a write is withheld: later completions stay behind it.
  bool completionsStalled_ = false;
  bool dropRequested_ = false;
  // The pause faults: after pauseAfter_ OUT blocks in the device's life, or
  // after a block that starts a random stall, it takes none until pauseEnds_.
  const long long pauseAfter_;
  const std::chrono::milliseconds pauseFor_;
  long long outBlocksTaken_ = 0;
  std::optional<Clock::time_point> pauseEnds_;
};

}  // namespace ferrolt::devsim
