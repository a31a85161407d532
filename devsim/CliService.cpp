// The device's CLI session: "CLI On" and "CLI Off" switch CLI mode (kept in
// the root folder, so it outlives the host's links and the emulator run),
// and any other text while the mode is on runs as a command whose output
// streams back in type-4 packets, closed by the end text. Commands come from
// the built-in set, which sees only the root, unless the user asked for the
// host's shell.
#include <chrono>
#include <fstream>
#include <string>

#include "devsim/BuiltinCommands.h"
#include "devsim/CommandServices.h"
#include "devsim/DeviceLimits.h"
#include "devsim/DevicePackets.h"
#include "devsim/ShellCommand.h"

namespace ferrolt::devsim {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kModeFile = "cli-mode";
constexpr const char* kModeOn = "on";
constexpr const char* kModeOff = "off";
constexpr const char* kEndText = "ending testdata";
constexpr const char* kModeOffText = "CLI mode is off: send CLI On first\n";
constexpr const char* kCannotRunText = "cannot run the command\n";
constexpr const char* kTimedOutText = "[timed out]\n";

bool CliModeOn(const DeviceContext& device) {
  std::ifstream in(device.Root() / kModeFile);
  std::string mode;
  in >> mode;
  return mode == kModeOn;
}

void SetCliMode(DeviceContext& device, bool on) {
  std::ofstream out(device.Root() / kModeFile, std::ios::trunc);
  out << (on ? kModeOn : kModeOff) << '\n';
  device.Note(out.flush() ? (on ? "cli mode on" : "cli mode off") : "cli: cannot write the mode file");
}

class CliService final : public Service {
 public:
  CliService(std::chrono::seconds timeout, bool hostShell) : timeout_(timeout), hostShell_(hostShell) {}

  bool Accept(const Block& block, DeviceContext& device) override {
    if (TypeOf(block) != kTypeCli || !CrcMatches(block)) return false;
    const std::string text = PayloadText(block);
    if (text == "CLI On" || text == "CLI Off") {
      SetCliMode(device, text == "CLI On");
    } else {
      Run(text, device);
    }
    return true;
  }

  void Poll(DeviceContext& device) override {
    if (!command_) return;
    if (!timedOut_ && Clock::now() >= deadline_) {
      command_->Kill();
      timedOut_ = true;
      device.Note("cli: command timed out, killed");
    }
    StreamOutput(device);
    if (OutputFinished() && HasRoom(device)) {
      if (timedOut_) SendOutput(device, kTimedOutText, std::char_traits<char>::length(kTimedOutText));
      command_.reset();
      SendEnd(device);
    }
  }

  bool Busy() const override { return command_ != nullptr; }

  void LinkClosed(DeviceContext& device) override {
    if (!command_) return;
    command_->Kill();
    command_.reset();
    device.Note("cli: link closed, command killed");
  }

 private:
  void Run(const std::string& command, DeviceContext& device) {
    if (command_) {
      command_->Kill();
      command_.reset();
      device.Note("cli: previous command killed");
    }
    outputPackets_ = 0;
    outputEnded_ = false;
    timedOut_ = false;
    if (!CliModeOn(device)) {
      device.Note("cli: refused (mode off): " + command);
      SendText(device, kModeOffText);
      SendEnd(device);
      return;
    }
    device.Note("cli: " + command);
    if (hostShell_) {
      command_ = ShellCommand::Start(command, device.Root());
    } else {
      command_ = RunBuiltinCommands(command, device.Root());
    }
    if (!command_) {
      SendText(device, kCannotRunText);
      SendEnd(device);
      return;
    }
    deadline_ = Clock::now() + timeout_;
  }

  static bool HasRoom(const DeviceContext& device) {
    return device.QueuedInBlocks() < limits::kMaxQueuedStreamBlocks;
  }

  void StreamOutput(DeviceContext& device) {
    char chunk[kPayloadSize];
    while (!outputEnded_ && HasRoom(device)) {
      size_t count = 0;
      const auto result = command_->Read(chunk, sizeof chunk, count);
      if (result == CliCommand::ReadResult::Nothing) break;
      if (result == CliCommand::ReadResult::End) {
        outputEnded_ = true;
        break;
      }
      SendOutput(device, chunk, count);
    }
  }

  // A killed command is finished at once: a process that left its group
  // could hold the pipe open for ever.
  bool OutputFinished() { return timedOut_ || (outputEnded_ && command_->Exited()); }

  void SendText(DeviceContext& device, const char* text) {
    SendOutput(device, text, std::char_traits<char>::length(text));
  }

  void SendOutput(DeviceContext& device, const char* bytes, size_t count) {
    Block packet = MakePacket(kTypeCli, 0, reinterpret_cast<const uint8_t*>(bytes), count);
    ++outputPackets_;
    if (device.Faults().Number("corrupt-cli-crc", 0) == outputPackets_) {
      CorruptCrc(packet);
      device.Note("fault: cli output packet " + std::to_string(outputPackets_) + " sent with a wrong crc");
    }
    device.Send(packet);
  }

  void SendEnd(DeviceContext& device) {
    if (device.Faults().Has("cli-no-end")) {
      device.Note("fault: cli end text withheld");
      return;
    }
    device.Send(MakeTextPacket(kTypeCli, kEndText));
    device.Note("cli: command ended");
  }

  const std::chrono::seconds timeout_;
  const bool hostShell_;
  std::unique_ptr<CliCommand> command_;
  Clock::time_point deadline_{};
  long long outputPackets_ = 0;
  bool outputEnded_ = false;
  bool timedOut_ = false;
};

}  // namespace

std::unique_ptr<Service> CreateCliService(std::chrono::seconds timeout, bool hostShell) {
  return std::make_unique<CliService>(timeout, hostShell);
}

}  // namespace ferrolt::devsim
