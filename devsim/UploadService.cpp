// The device's side of the upload: "Starting upload S N NAME" opens a file in
// the device's /tmp/, type-5 data packets are written at number x 57 and each
// is answered at once (accepted, or refused for a resend), and "Ending upload"
// publishes the file under its name. Until then it is kept under a hidden
// name, so an upload that never ends leaves no file that looks complete. The
// upload survives the host reopening its link, as the host goes on with the
// packet it was sending.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>

#include "devsim/DevicePackets.h"
#include "devsim/FileServices.h"

namespace ferrolt::devsim {
namespace {

namespace fs = std::filesystem;

constexpr char kStartPrefix[] = "Starting upload ";
constexpr char kEndText[] = "Ending upload";
constexpr uint8_t kAccepted = 0;
constexpr uint8_t kRefused = 1;
// Where uploads land on the device.
constexpr char kFolder[] = "/tmp/";

// A name the device can store in its /tmp/ without leaving it.
bool IsPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

class UploadService final : public Service {
 public:
  bool Accept(const Block& block, DeviceContext& device) override {
    const std::string raw = RawText(block);
    if (raw.rfind(kStartPrefix, 0) == 0) return Start(raw, device);
    if (raw == kEndText) return Finish(device);
    if (TypeOf(block) == kTypeUpload) return Data(block, device);
    return false;
  }

 private:
  bool Start(const std::string& text, DeviceContext& device) {
    Discard();
    int size = 0;
    int count = 0;
    int nameAt = 0;
    // The count must be the size's: a larger one would let one late packet
    // number make a file far past the announced size.
    if (std::sscanf(text.c_str(), "Starting upload %d %d %n", &size, &count, &nameAt) != 2 || nameAt == 0 ||
        !IsPlainName(text.substr(nameAt)) || size < 0 || count != PacketCountFor(size)) {
      device.Note("upload refused: " + text);
      return true;
    }
    name_ = text.substr(nameAt);
    const fs::path folder = device.DevicePathToLocal(kFolder);
    std::error_code error;
    if (!folder.empty()) fs::create_directories(folder, error);
    final_ = device.DevicePathToLocal(std::string(kFolder) + name_);
    partial_ = device.DevicePathToLocal(std::string(kFolder) + "." + name_ + ".part");
    if (!final_.empty() && !partial_.empty()) {
      file_.open(partial_, std::ios::binary | std::ios::trunc | std::ios::in | std::ios::out);
    }
    if (!file_.is_open()) {
      device.Note("upload refused: cannot create " + std::string(kFolder) + name_);
      return true;
    }
    size_ = size;
    count_ = count;
    received_.clear();
    device.Note("upload started " + name_ + " " + std::to_string(size) + " " + std::to_string(count));
    return true;
  }

  bool Data(const Block& block, DeviceContext& device) {
    const uint32_t number = NumberOf(block);
    if (!file_.is_open()) {
      device.Note("upload packet " + std::to_string(number) + " without an upload");
      return true;
    }
    const bool faulted =
        (device.Faults().Has("upload-nack") && Listed(device.Faults(), number) && nacked_.insert(number).second) ||
        device.FaultStrikes("upload-nack-random");
    const bool announced = number < static_cast<uint32_t>(count_);
    if (faulted || !announced || !CrcMatches(block) || LengthOf(block) > kPayloadSize) {
      device.Note("upload packet " + std::to_string(number) + " refused" + (announced ? "" : ": past the count"));
      Reply(number, kRefused, device);
      return true;
    }
    file_.seekp(static_cast<std::streamoff>(number) * static_cast<std::streamoff>(kPayloadSize));
    file_.write(reinterpret_cast<const char*>(PayloadOf(block)), LengthOf(block));
    file_.flush();
    received_.insert(number);
    Reply(number, kAccepted, device);
    return true;
  }

  bool Finish(DeviceContext& device) {
    if (!file_.is_open()) {
      device.Note("upload end without an upload");
      return true;
    }
    file_.close();
    std::error_code error;
    fs::rename(partial_, final_, error);
    const auto bytes = fs::file_size(final_, error);
    device.Note("upload finished " + name_ + " " + std::to_string(error ? 0 : bytes) + " of " + std::to_string(size_) + " bytes, " +
                std::to_string(received_.size()) + " of " + std::to_string(count_) + " packets");
    return true;
  }

  // A new upload replaces one that never ended.
  void Discard() {
    if (!file_.is_open()) return;
    file_.close();
    std::error_code error;
    fs::remove(partial_, error);
  }

  static bool Listed(const FaultPlan& faults, uint32_t number) {
    for (long long listed : faults.Numbers("upload-nack")) {
      if (listed == static_cast<long long>(number)) return true;
    }
    return false;
  }

  static void Reply(uint32_t number, uint8_t verdict, DeviceContext& device) {
    device.Send(MakePacket(kTypeCli, number, &verdict, 1));
  }

  std::fstream file_;
  std::string name_;
  fs::path final_;
  fs::path partial_;
  int size_ = 0;
  int count_ = 0;
  std::set<uint32_t> received_;
  // Packets refused once by the upload-nack fault.
  std::set<uint32_t> nacked_;
};

}  // namespace

std::unique_ptr<Service> CreateUploadService() { return std::make_unique<UploadService>(); }

}  // namespace ferrolt::devsim
