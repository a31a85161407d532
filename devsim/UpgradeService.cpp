// The device's side of the upgrade: the start command, the numbered data
// packets checked for CRC and sequence (a bad one is answered with a NACK and
// the packets after it are dropped until it comes again), the bundle streamed
// to disk, and the status text that answers "Ending Upgrade".
//
// Faults (each once per upgrade unless said otherwise):
//   nack=LIST           NACK these packet numbers when they first arrive
//   nack-always=N       NACK packet N every time, up to kForcedNackBound times
//   corrupt=LIST        corrupt these packets on arrival, so the CRC check fails
//   nack-beyond=K       after packet K, NACK a number at or above the count
//   double-nack=K       at packet K, two NACKs at once: K-3, then K-2
//   corrupt-status-crc  send the end status with a wrong CRC, then a good one
//   no-end-text         never answer "Ending Upgrade"
//   nack-random=PERCENT NACK packets that arrive in sequence by this chance,
//                       drawn at every arrival
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>

#include "devsim/Bundle.h"
#include "devsim/DevicePackets.h"
#include "devsim/FileServices.h"

namespace ferrolt::devsim {
namespace {

// NACK payload byte 0: why the packet is refused.
constexpr uint8_t kCrcError = 0;
constexpr uint8_t kSequenceError = 1;
// nack-always gives in after this many refusals of its packet.
constexpr int kForcedNackBound = 5;
// double-nack goes back this far, then one packet less.
constexpr uint32_t kDoubleNackFirstDistance = 3;
constexpr uint32_t kDoubleNackSecondDistance = 2;
constexpr const char* kStartCommand = "Starting Upgrade ";
constexpr const char* kEndText = "Ending Upgrade";
constexpr const char* kCompletedText = "Upgrade complete, ending update";

// The faults of one upgrade, read from the plan when it starts.
struct UpgradeFaults {
  explicit UpgradeFaults(const FaultPlan& plan) {
    for (long long n : plan.Numbers("nack")) nackOnce.insert(n);
    for (long long n : plan.Numbers("corrupt")) corruptOnce.insert(n);
    nackAlways = plan.Number("nack-always", -1);
    nackBeyondAfter = plan.Number("nack-beyond", -1);
    doubleNackAt = plan.Number("double-nack", -1);
    corruptStatusCrc = plan.Has("corrupt-status-crc");
    noEndText = plan.Has("no-end-text");
  }

  // True (once per number) when this packet is to be refused on arrival.
  bool RefuseOnArrival(uint32_t number) {
    if (nackOnce.erase(number) > 0) return true;
    if (static_cast<long long>(number) != nackAlways || forcedNacks >= kForcedNackBound) return false;
    ++forcedNacks;
    return true;
  }
  bool CorruptOnArrival(uint32_t number) { return corruptOnce.erase(number) > 0; }
  bool NackBeyondAfter(uint32_t number) {
    if (static_cast<long long>(number) != nackBeyondAfter) return false;
    nackBeyondAfter = -1;
    return true;
  }
  bool DoubleNackAt(uint32_t number) {
    if (static_cast<long long>(number) != doubleNackAt || number < kDoubleNackFirstDistance) return false;
    doubleNackAt = -1;
    return true;
  }

  std::set<long long> nackOnce;
  std::set<long long> corruptOnce;
  long long nackAlways;
  int forcedNacks = 0;
  long long nackBeyondAfter;
  long long doubleNackAt;
  bool corruptStatusCrc;
  bool noEndText;
};

// "Starting Upgrade S N": both non-negative decimal numbers, N the count of
// 57-byte packets S needs.
bool ParseStart(const std::string& text, long long& size, long long& count) {
  const char* cursor = text.c_str() + std::string(kStartCommand).size();
  char* end = nullptr;
  size = std::strtoll(cursor, &end, 10);
  if (end == cursor || *end != ' ') return false;
  cursor = end + 1;
  count = std::strtoll(cursor, &end, 10);
  if (end == cursor || *end != '\0') return false;
  const long long packetSize = static_cast<long long>(kPayloadSize);
  return size >= 0 && count == (size + packetSize - 1) / packetSize;
}

Block MakeNack(uint32_t number, uint8_t reason) {
  const uint8_t payload[] = {reason};
  return MakePacket(kTypeNack, number, payload, sizeof payload);
}

class UpgradeService final : public Service {
 public:
  bool Accept(const Block& block, DeviceContext& device) override {
    if (RawText(block).rfind(kStartCommand, 0) == 0) {
      Start(RawText(block), device);
      return true;
    }
    if (TypeOf(block) != kTypeUpgrade) return false;
    if (IsEndPacket(block)) {
      Finish(device);
    } else if (receiving_) {
      Receive(block, device);
    } else {
      device.Note("upgrade: data packet " + std::to_string(NumberOf(block)) + " outside an upgrade, ignored");
    }
    return true;
  }

  void LinkClosed(DeviceContext& device) override {
    if (!receiving_) return;
    device.Note("upgrade: link closed after " + std::to_string(expected_) + " packets; upgrade dropped");
    CloseBundle();
    receiving_ = false;
  }

 private:
  void Start(const std::string& text, DeviceContext& device) {
    CloseBundle();
    faults_ = UpgradeFaults(device.Faults());
    refused_ = !ParseStart(text, size_, count_);
    expected_ = 0;
    accepted_ = 0;
    awaitingResend_ = false;
    written_ = 0;
    bundlePath_ = BundleImagePath(device.Root());
    std::error_code ignored;
    std::filesystem::create_directories(bundlePath_.parent_path(), ignored);
    bundle_.open(bundlePath_, std::ios::binary | std::ios::trunc);
    if (!bundle_.is_open()) refused_ = true;
    receiving_ = true;
    device.Note("upgrade: " + text + (refused_ ? " refused" : " accepted"));
  }

  bool IsEndPacket(const Block& block) const {
    if (NumberOf(block) != 0 || !CrcMatches(block) || PayloadText(block) != kEndText) return false;
    // Packet 0 of a bundle that happens to begin with the end text is data.
    return !(receiving_ && expected_ == 0 && count_ > 0);
  }

  void Receive(const Block& arrived, DeviceContext& device) {
    Block packet = arrived;
    const uint32_t number = NumberOf(packet);
    const bool next = number == expected_ && !awaitingResend_;
    if (next && faults_.CorruptOnArrival(number)) packet[kPayloadOffset] ^= 0xFF;
    if (!CrcMatches(packet)) return Refuse(expected_, kCrcError, device);
    // Behind: a packet sent again after a go-back, already stored.
    if (number < expected_) return;
    if (number > expected_) {
      if (!awaitingResend_) Refuse(expected_, kSequenceError, device);
      return;
    }
    if (faults_.RefuseOnArrival(number) || device.FaultStrikes("nack-random")) {
      return Refuse(number, kSequenceError, device);
    }
    Store(packet, device);
    AfterStored(number, device);
  }

  void Refuse(uint32_t number, uint8_t reason, DeviceContext& device) {
    device.Send(MakeNack(number, reason));
    awaitingResend_ = true;
    device.Note("upgrade: NACK " + std::to_string(number) + (reason == kSequenceError ? " sequence" : " crc"));
  }

  void Store(const Block& packet, DeviceContext& device) {
    const uint32_t number = NumberOf(packet);
    const size_t length = std::min<size_t>(LengthOf(packet), kPayloadSize);
    const long long offset = static_cast<long long>(number) * static_cast<long long>(kPayloadSize);
    const bool last = static_cast<long long>(number) + 1 == count_;
    if (static_cast<long long>(number) >= count_ || (!last && length != kPayloadSize)) {
      if (!refused_) device.Note("upgrade: packet " + std::to_string(number) + " does not fit the announced size");
      refused_ = true;
      return;
    }
    if (offset != written_) bundle_.seekp(offset);
    bundle_.write(reinterpret_cast<const char*>(PayloadOf(packet)), static_cast<std::streamsize>(length));
    written_ = offset + static_cast<long long>(length);
    accepted_ = written_;
    ++expected_;
    awaitingResend_ = false;
  }

  void AfterStored(uint32_t number, DeviceContext& device) {
    if (faults_.NackBeyondAfter(number)) {
      device.Send(MakeNack(static_cast<uint32_t>(count_), kSequenceError));
      device.Note("upgrade: NACK " + std::to_string(count_) + " beyond the last packet");
    }
    if (faults_.DoubleNackAt(number)) {
      Refuse(number - kDoubleNackFirstDistance, kSequenceError, device);
      Refuse(number - kDoubleNackSecondDistance, kSequenceError, device);
      // What the device now waits for is the later NACK's packet.
      expected_ = number - kDoubleNackSecondDistance;
      accepted_ = static_cast<long long>(expected_) * static_cast<long long>(kPayloadSize);
    }
  }

  void Finish(DeviceContext& device) {
    const bool complete = receiving_ && !refused_ && static_cast<long long>(expected_) == count_ && accepted_ == size_;
    const std::string status = StatusText(complete);
    CloseBundle();
    if (complete) InstallVersion(device);
    device.Note("upgrade: end, " + status);
    receiving_ = false;
    if (faults_.noEndText) return;
    Block reply = MakeTextPacket(kTypeUpgrade, status);
    if (faults_.corruptStatusCrc) {
      Block corrupted = reply;
      CorruptCrc(corrupted);
      device.Send(corrupted);
    }
    device.Send(reply);
  }

  std::string StatusText(bool complete) const {
    if (complete) return kCompletedText;
    if (!receiving_) return "Upgrade Failed: no upgrade was started";
    if (refused_) return "Upgrade Failed: the bundle was refused";
    return "Upgrade Failed: received " + std::to_string(expected_) + " of " + std::to_string(count_) + " packets";
  }

  void InstallVersion(DeviceContext& device) {
    const std::optional<std::string> version = BundleVersion(bundlePath_);
    if (!version) return;
    device.SetVersion(*version);
    device.Note("upgrade: installed version " + *version);
  }

  // Closes the stored bundle at what was accepted: a go-back may have left
  // bytes past it.
  void CloseBundle() {
    if (!bundle_.is_open()) return;
    bundle_.close();
    std::error_code ignored;
    if (std::filesystem::file_size(bundlePath_, ignored) != static_cast<uintmax_t>(accepted_)) {
      std::filesystem::resize_file(bundlePath_, static_cast<uintmax_t>(accepted_), ignored);
    }
  }

  UpgradeFaults faults_{FaultPlan{}};
  bool receiving_ = false;
  bool refused_ = false;
  long long size_ = 0;
  long long count_ = 0;
  uint32_t expected_ = 0;
  bool awaitingResend_ = false;
  long long written_ = 0;   // the stream's position in the stored bundle
  long long accepted_ = 0;  // bytes of the bundle accepted in order
  std::filesystem::path bundlePath_;
  std::ofstream bundle_;
};

}  // namespace

std::unique_ptr<Service> CreateUpgradeService() { return std::make_unique<UpgradeService>(); }

}  // namespace ferrolt::devsim
