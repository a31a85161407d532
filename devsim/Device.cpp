#include "devsim/Device.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <sstream>
#include <system_error>

#include "devsim/CommandServices.h"
#include "devsim/DeviceLimits.h"
#include "devsim/DevicePackets.h"
#include "devsim/FileServices.h"
#include "devsim/RootPath.h"

namespace ferrolt::devsim {
namespace fs = std::filesystem;

namespace {

// What a fresh device's log folder holds, so a log download has real files.
struct SampleLog {
  const char* name;
  const char* text;
};
constexpr SampleLog kSampleLogs[] = {
    {"messages",
     "Jan  1 00:00:01 device kernel: Linux version 5.10.0 (builder@ferrolt)\n"
     "Jan  1 00:00:02 device kernel: usb 1-1: new high-speed USB device\n"
     "Jan  1 00:00:05 device syslogd: started\n"},
    {"boot.log",
     "[  OK  ] Mounted root file system.\n"
     "[  OK  ] Started USB gadget service.\n"
     "[  OK  ] Reached target Multi-User System.\n"},
    {"ort.log", "ort: idle\n"},
};

constexpr const char* kProgramName = "ferrolt-devsim";
constexpr uint32_t kTracedBlockBytes = sizeof(Block);

bool WriteTextFile(const fs::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out.flush());
}

}  // namespace

std::unique_ptr<Device> Device::Create(const DeviceSettings& settings, std::string& error) {
  std::unique_ptr<Device> device(new Device(settings));
  if (!device->PrepareRoot(error) || !device->OpenFiles(error)) return nullptr;
  return device;
}

Device::Device(const DeviceSettings& settings)
    : settings_(settings),
      linkFaults_(settings_.faults),
      pauseAfter_(settings_.faults.Number("pause-writes-after", -1)),
      pauseFor_(settings_.faults.Number("pause-writes-for", limits::kDefaultWritePause.count())) {
  services_.push_back(CreateVersionService());
  services_.push_back(CreateCliService(settings_.cliTimeout, settings_.hostShell));
  services_.push_back(CreateOrtService());
  services_.push_back(CreateCaptouchService());
  services_.push_back(CreateCancelService());
  services_.push_back(CreateUpgradeService());
  services_.push_back(CreateUploadService());
  services_.push_back(CreateDownloadService());
  services_.push_back(CreateLogsService());
}

bool Device::PrepareRoot(std::string& error) {
  std::error_code failure;
  const fs::path logFolder = settings_.root / "var" / "log";
  const bool freshLogs = !fs::exists(logFolder, failure);
  fs::create_directories(settings_.root / "tmp", failure);
  if (!failure) fs::create_directories(logFolder, failure);
  if (failure) {
    error = "cannot create the root folder " + settings_.root.string() + ": " + failure.message();
    return false;
  }
  if (freshLogs) {
    for (const SampleLog& log : kSampleLogs) {
      if (!WriteTextFile(logFolder / log.name, log.text)) {
        error = "cannot write " + (logFolder / log.name).string();
        return false;
      }
    }
  }
  if (!fs::exists(settings_.root / "version") && !WriteTextFile(settings_.root / "version", settings_.initialVersion)) {
    error = "cannot write " + (settings_.root / "version").string();
    return false;
  }
  // Device paths are checked against the root's canonical form.
  settings_.root = fs::canonical(settings_.root, failure);
  if (failure) error = "cannot resolve the root folder: " + failure.message();
  return !failure;
}

bool Device::OpenFiles(std::string& error) {
  if (!settings_.recordFile.empty()) {
    record_.open(settings_.recordFile, std::ios::binary | std::ios::trunc);
    if (!record_) {
      error = "cannot open the record file " + settings_.recordFile.string();
      return false;
    }
  }
  if (!settings_.eventsFile.empty()) {
    events_.open(settings_.eventsFile, std::ios::binary | std::ios::trunc);
    if (!events_) {
      error = "cannot open the events file " + settings_.eventsFile.string();
      return false;
    }
  }
  // A capture that cannot be written is said, and the device serves on without it.
  if (!settings_.traceFile.empty()) trace_ = capture::UsbCapture::Create(settings_.traceFile.string(), kProgramName);
  if (trace_ != nullptr) trace_->RecordDescriptors(settings_.traceModel);
  return true;
}

void Device::OnLinkOpened() {
  linkFaults_.Reset();
  completions_.clear();
  completionsStalled_ = false;
  dropRequested_ = false;
  Note("link opened");
}

void Device::OnLinkClosed() {
  for (auto& service : services_) service->LinkClosed(*this);
  completions_.clear();
  if (!inQueue_.empty()) Note("link closed with " + std::to_string(inQueue_.size()) + " IN blocks queued");
  Note("link closed");
}

bool Device::TakesOutBlocks() const { return !pauseEnds_ || *pauseEnds_ <= Clock::now(); }

Device::Clock::time_point Device::PauseEnd() const { return pauseEnds_.value_or(Clock::time_point::min()); }

void Device::OnOutBlock(const Block& block) {
  Record(block);
  Trace(settings_.traceModel.bulkOutEndpoint, block);
  bool taken = false;
  for (auto& service : services_) {
    if (service->Accept(block, *this)) {
      taken = true;
      break;
    }
  }
  if (!taken) Note("unhandled block " + HexOf(block.data(), block.size()));
  ScheduleCompletion();
  // The block that starts a pause was taken before it: only later ones wait.
  if (++outBlocksTaken_ == pauseAfter_) {
    Pause(pauseFor_);
  } else if (const auto spell = linkFaults_.NextBusySpell()) {
    Pause(*spell);
  }
}

// The device sees a block arrive or leave, not the transfer around it: each
// is a transfer of its own, ended as it is taken. A block the host dropped and
// is sent again went on the bus twice, and shows twice.
void Device::Trace(uint8_t endpoint, const Block& block) {
  if (trace_ == nullptr) return;
  const bool in = (endpoint & capture::kDirectionIn) != 0;
  const uint64_t id = trace_->Submit(endpoint, in ? nullptr : block.data(), kTracedBlockBytes);
  trace_->Complete(id, endpoint, capture::TransferEnd::Done, in ? block.data() : nullptr, kTracedBlockBytes);
}

void Device::Pause(std::chrono::milliseconds length) {
  pauseEnds_ = std::max(PauseEnd(), Clock::now() + length);
  Note("fault: taking no OUT block for " + std::to_string(length.count()) + " ms");
}

void Device::Record(const Block& block) {
  if (!record_.is_open()) return;
  record_.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(block.size()));
  record_.flush();
}

void Device::ScheduleCompletion() {
  const WriteFate fate = linkFaults_.NextOutBlock();
  switch (fate.kind) {
    case WriteFate::Kind::DropLink:
      // A device that goes away takes what it had queued with it.
      dropRequested_ = true;
      inQueue_.clear();
      Note("fault: dropping the host link");
      break;
    case WriteFate::Kind::Withhold:
      completionsStalled_ = true;
      Note("fault: write completion withheld");
      break;
    case WriteFate::Kind::Complete:
      // Completions are reported in order: none passes a withheld one.
      if (!completionsStalled_) completions_.push_back(std::max(Clock::now() + fate.delay, PauseEnd()));
      break;
  }
}

void Device::Poll() {
  for (auto& service : services_) service->Poll(*this);
}

bool Device::Busy() const {
  for (const auto& service : services_) {
    if (service->Busy()) return true;
  }
  return false;
}

size_t Device::TakeDueCompletions() {
  const auto now = Clock::now();
  size_t due = 0;
  while (!completions_.empty() && completions_.front() <= now) {
    completions_.pop_front();
    ++due;
  }
  return due;
}

std::optional<Block> Device::PopInBlock() {
  if (inQueue_.empty() || inQueue_.front().due > Clock::now()) return std::nullopt;
  Block block = inQueue_.front().block;
  inQueue_.pop_front();
  Trace(settings_.traceModel.bulkInEndpoint, block);
  return block;
}

void Device::ReturnInBlocks(const std::vector<Block>& blocks) {
  const Clock::time_point now = Clock::now();
  for (auto block = blocks.rbegin(); block != blocks.rend(); ++block) inQueue_.push_front({now, *block});
  Note("returned " + std::to_string(blocks.size()) + " IN blocks the host dropped");
}

std::optional<Device::Clock::time_point> Device::NextDue(bool inBlocksWanted) const {
  std::optional<Clock::time_point> next;
  if (!completions_.empty()) next = completions_.front();
  if (inBlocksWanted && !inQueue_.empty() && (!next || inQueue_.front().due < *next)) next = inQueue_.front().due;
  // Whoever holds blocks back until the pause ends is woken for it.
  if (!TakesOutBlocks() && (!next || *pauseEnds_ < *next)) next = *pauseEnds_;
  return next;
}

std::optional<std::chrono::milliseconds> Device::TimeUntilNeeded(bool inBlocksWanted) const {
  using std::chrono::milliseconds;
  std::optional<milliseconds> wait;
  if (Busy()) wait = limits::kBusyPollInterval;
  if (const auto due = NextDue(inBlocksWanted)) {
    const auto untilDue = std::max(milliseconds(0), std::chrono::ceil<milliseconds>(*due - Clock::now()));
    if (!wait || untilDue < *wait) wait = untilDue;
  }
  return wait;
}

void Device::Send(const Block& block) {
  const auto delay = linkFaults_.NextReplyDelay();
  if (linkFaults_.RepliesJitter()) Note("fault: IN block held back " + std::to_string(delay.count()) + " ms");
  inQueue_.push_back({Clock::now() + delay, block});
}

bool Device::FaultStrikes(const std::string& name) {
  if (!settings_.faults.Has(name)) return false;
  return serviceDice_.try_emplace(name, settings_.faults, name).first->second.Strikes();
}

fs::path Device::DevicePathToLocal(const std::string& devicePath) const {
  if (!fs::path(devicePath).is_absolute()) return {};
  return ResolveInRoot(settings_.root, devicePath);
}

std::string Device::Version() const {
  std::ifstream in(settings_.root / "version", std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // An edited file usually ends with a line break that is not part of the version.
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

void Device::SetVersion(const std::string& version) {
  if (!WriteTextFile(settings_.root / "version", version)) Note("cannot write the version file");
}

void Device::Note(const std::string& line) {
  if (events_.is_open()) events_ << line << '\n' << std::flush;
  if (settings_.verbose) std::cerr << "ferrolt-devsim: " << line << '\n';
}

}  // namespace ferrolt::devsim
