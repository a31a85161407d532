// One fuzz run of the emulated device: a fresh device on a fresh root folder
// (so a run depends on its input alone), fed OUT blocks, its services given
// time, and everything it answers taken as a host would.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <system_error>
#include <filesystem>
#include <memory>
#include <string>

#include "devsim/Device.h"

namespace ferrolt::fuzz {

// Polls after the input, so streams and commands run to their end.
inline constexpr int kMaxSettlePolls = 64;

class DevsimRun {
 public:
  DevsimRun() {
    devsim::DeviceSettings settings;
    settings.root = Folder() / "root";
    std::error_code error;
    std::filesystem::remove_all(settings.root, error);
    std::string reason;
    device_ = devsim::Device::Create(settings, reason);
    if (device_ == nullptr) __builtin_trap();
    device_->OnLinkOpened();
  }
  ~DevsimRun() { device_->OnLinkClosed(); }

  void Feed(const devsim::Block& block) {
    device_->OnOutBlock(block);
    Drain();
  }

  void Settle() {
    for (int poll = 0; poll < kMaxSettlePolls && device_->Busy(); ++poll) Drain();
  }

 private:
  // One scratch folder for the whole fuzzing process, removed at its exit.
  struct ScratchFolder {
    ScratchFolder() {
      std::string name = (std::filesystem::temp_directory_path() / "ferrolt-fuzz-XXXXXX").string();
      if (mkdtemp(name.data()) == nullptr) __builtin_trap();
      path = name;
    }
    ~ScratchFolder() {
      std::error_code error;
      std::filesystem::remove_all(path, error);
    }
    std::filesystem::path path;
  };
  static const std::filesystem::path& Folder() {
    static const ScratchFolder folder;
    return folder.path;
  }

  void Drain() {
    device_->Poll();
    device_->TakeDueCompletions();
    while (device_->PopInBlock()) {
    }
  }

  std::unique_ptr<devsim::Device> device_;
};

}  // namespace ferrolt::fuzz
