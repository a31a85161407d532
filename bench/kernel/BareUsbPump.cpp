// What the same kernel, controller and device carry without the tool: the
// upgrade's and the download's packets over interface 4's bulk pipes with
// libusb alone, for bench/kernel_throughput.sh to set the tool against.
//   bare_usb_pump upgrade BUNDLE WINDOW
//       the start text; the bundle's data packets with WINDOW writes in
//       flight, each completion submitting the next on libusb's event loop
//       while WINDOW reads drain IN; the end packet; the device's end report
//   bare_usb_pump download DEVICE_PATH FILE WINDOW
//       the request; WINDOW reads queued until the end reply, each data
//       packet's payload written to FILE with a write of its own, as the
//       tool writes it
// Exit status 0 when every packet went and the device reported the end.
#include <fcntl.h>
#include <libusb.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/support/UpgradePackets.h"
#include "link/DeviceIds.h"
#include "link/DevicePacket.h"

namespace ferrolt::bench {
namespace {

using Clock = std::chrono::steady_clock;

// As the tool: a single write's bound, and how long the device may take to
// report the end once the last packet went.
constexpr unsigned kWriteTimeoutMs = 500;
constexpr auto kEndReportLimit = std::chrono::seconds(60);
// Only against a device that went silent: a run under emulation takes minutes.
constexpr auto kRunLimit = std::chrono::hours(1);
constexpr timeval kEventStep{0, 100000};
constexpr auto kCancelLimit = std::chrono::seconds(5);
constexpr size_t kMaxWindow = 1024;

struct Pipes {
  libusb_device_handle* handle = nullptr;
  uint8_t out = 0;
  uint8_t in = 0;
  int inPacketSize = 0;
};

// Interface 4's bulk endpoints of the first device with our ids.
bool OpenDevice(libusb_context* context, Pipes& pipes) {
  pipes.handle = libusb_open_device_with_vid_pid(context, kVendorId, kProductId);
  if (pipes.handle == nullptr) return false;
  libusb_config_descriptor* config = nullptr;
  if (libusb_get_active_config_descriptor(libusb_get_device(pipes.handle), &config) != LIBUSB_SUCCESS) return false;
  for (int i = 0; i < config->bNumInterfaces; ++i) {
    const libusb_interface_descriptor& interface = config->interface[i].altsetting[0];
    if (interface.bInterfaceNumber != kVendorInterface) continue;
    for (int e = 0; e < interface.bNumEndpoints; ++e) {
      const libusb_endpoint_descriptor& endpoint = interface.endpoint[e];
      if ((endpoint.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) != LIBUSB_TRANSFER_TYPE_BULK) continue;
      if ((endpoint.bEndpointAddress & LIBUSB_ENDPOINT_IN) != 0) {
        pipes.in = endpoint.bEndpointAddress;
        pipes.inPacketSize = endpoint.wMaxPacketSize & 0x7FF;
      } else {
        pipes.out = endpoint.bEndpointAddress;
      }
    }
  }
  libusb_free_config_descriptor(config);
  return pipes.in != 0 && pipes.out != 0 && libusb_claim_interface(pipes.handle, kVendorInterface) == LIBUSB_SUCCESS;
}

bool WriteBlock(const Pipes& pipes, Block block) {
  int sent = 0;
  return libusb_bulk_transfer(pipes.handle, pipes.out, block.data(), kBlockSize, &sent, kWriteTimeoutMs) ==
             LIBUSB_SUCCESS &&
         sent == static_cast<int>(kBlockSize);
}

// The state both pumps share with their callbacks, all on the one thread
// that handles libusb's events.
struct Pump {
  Pipes pipes;
  std::vector<Block> packets;  // the upgrade's data packets
  size_t nextPacket = 0;
  size_t packetsDone = 0;
  size_t writesInFlight = 0;
  size_t readsInFlight = 0;
  const char* endText = nullptr;  // the reply that ends the run, in any case
  bool ended = false;
  bool failed = false;
  int file = -1;  // where a download's payloads go
};

// A queued read, resubmitted as it completes until the run ends.
struct ReadSlot {
  Pump* pump = nullptr;
  libusb_transfer* transfer = nullptr;  // none once libusb gave it back for good
  std::vector<uint8_t> buffer;
};

void LIBUSB_CALL WriteDone(libusb_transfer* transfer);
void LIBUSB_CALL ReadDone(libusb_transfer* transfer);

void SubmitWrite(Pump& pump, libusb_transfer* transfer) {
  libusb_fill_bulk_transfer(transfer, pump.pipes.handle, pump.pipes.out, pump.packets[pump.nextPacket++].data(),
                            kBlockSize, WriteDone, &pump, kWriteTimeoutMs);
  if (libusb_submit_transfer(transfer) == LIBUSB_SUCCESS) return;
  pump.failed = true;
  libusb_free_transfer(transfer);
  --pump.writesInFlight;
}

void LIBUSB_CALL WriteDone(libusb_transfer* transfer) {
  Pump& pump = *static_cast<Pump*>(transfer->user_data);
  if (transfer->status != LIBUSB_TRANSFER_COMPLETED) pump.failed = true;
  ++pump.packetsDone;
  if (!pump.failed && pump.nextPacket < pump.packets.size()) return SubmitWrite(pump, transfer);
  libusb_free_transfer(transfer);
  --pump.writesInFlight;
}

// A block: the end reply ends the run; a download's data goes to its file.
void TakeBlock(Pump& pump, const uint8_t* block) {
  const uint32_t number = PacketNumber(block);
  if (number == 0 && StartsWithIgnoringCase(PayloadText(block), "starting")) return;
  if (number == 0 && PayloadText(block).find(pump.endText) != std::string::npos) {
    pump.ended = true;
    return;
  }
  if (pump.file < 0 || PacketTypeOf(block) != static_cast<uint8_t>(PacketType::Download)) return;
  const uint8_t length = PacketLength(block);
  if (length > kPayloadSize || write(pump.file, block + kPayloadOffset, length) != length) pump.failed = true;
}

void LIBUSB_CALL ReadDone(libusb_transfer* transfer) {
  ReadSlot& slot = *static_cast<ReadSlot*>(transfer->user_data);
  Pump& pump = *slot.pump;
  if (transfer->status == LIBUSB_TRANSFER_COMPLETED) {
    for (int at = 0; at + static_cast<int>(kBlockSize) <= transfer->actual_length; at += kBlockSize)
      TakeBlock(pump, transfer->buffer + at);
  } else if (transfer->status != LIBUSB_TRANSFER_CANCELLED) {
    pump.failed = true;
  }
  if (!pump.ended && !pump.failed && libusb_submit_transfer(transfer) == LIBUSB_SUCCESS) return;
  libusb_free_transfer(transfer);
  slot.transfer = nullptr;
  --pump.readsInFlight;
}

void StartReads(Pump& pump, std::vector<ReadSlot>& slots) {
  for (ReadSlot& slot : slots) {
    slot.pump = &pump;
    slot.buffer.resize(static_cast<size_t>(pump.pipes.inPacketSize));
    slot.transfer = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(slot.transfer, pump.pipes.handle, pump.pipes.in, slot.buffer.data(),
                              static_cast<int>(slot.buffer.size()), ReadDone, &slot, 0);
    if (libusb_submit_transfer(slot.transfer) != LIBUSB_SUCCESS) {
      libusb_free_transfer(slot.transfer);
      slot.transfer = nullptr;
      pump.failed = true;
      return;
    }
    ++pump.readsInFlight;
  }
}

// Handles events until done says so, the pump fails, or the limit passes.
template <typename Done>
bool HandleEventsUntil(libusb_context* context, Pump& pump, Done done, Clock::time_point limit) {
  while (!done() && !pump.failed && Clock::now() < limit) {
    timeval step = kEventStep;
    libusb_handle_events_timeout_completed(context, &step, nullptr);
  }
  return done() && !pump.failed;
}

// Cancels the reads still queued and waits until libusb has given them back.
void StopReads(libusb_context* context, Pump& pump, std::vector<ReadSlot>& slots) {
  pump.ended = true;  // no read is submitted again
  for (const ReadSlot& slot : slots)
    if (slot.transfer != nullptr) libusb_cancel_transfer(slot.transfer);
  const auto limit = Clock::now() + kCancelLimit;
  while (pump.readsInFlight > 0 && Clock::now() < limit) {
    timeval step = kEventStep;
    libusb_handle_events_timeout_completed(context, &step, nullptr);
  }
}

bool Upgrade(libusb_context* context, Pump& pump, std::vector<ReadSlot>& reads, const std::string& bundle) {
  pump.packets = UpgradePackets(bundle);
  pump.endText = "ending";
  const std::string start = "Starting Upgrade " + std::to_string(std::filesystem::file_size(bundle)) + " " +
                            std::to_string(pump.packets.size());
  if (!WriteBlock(pump.pipes, BuildRawTextBlock(start))) return false;
  StartReads(pump, reads);
  for (size_t i = 0; i < reads.size() && pump.nextPacket < pump.packets.size(); ++i) {
    ++pump.writesInFlight;
    SubmitWrite(pump, libusb_alloc_transfer(0));
  }
  const auto noWrites = [&] { return pump.writesInFlight == 0; };
  if (!HandleEventsUntil(context, pump, noWrites, Clock::now() + kRunLimit)) return false;
  if (pump.packetsDone != pump.packets.size() ||
      !WriteBlock(pump.pipes, BuildTextPacket(PacketType::Upgrade, "Ending Upgrade")))
    return false;
  return HandleEventsUntil(
      context, pump, [&] { return pump.ended; }, Clock::now() + kEndReportLimit);
}

bool Download(libusb_context* context, Pump& pump, std::vector<ReadSlot>& reads, const std::string& devicePath,
              const std::string& path) {
  pump.endText = "ending download";
  pump.file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (pump.file < 0) return false;
  if (!WriteBlock(pump.pipes, BuildTextPacket(PacketType::Download, "Starting download " + devicePath))) return false;
  StartReads(pump, reads);
  const bool ended = HandleEventsUntil(
      context, pump, [&] { return pump.ended; }, Clock::now() + kRunLimit);
  return close(pump.file) == 0 && ended;
}

int Usage() {
  std::fprintf(stderr, "usage: bare_usb_pump upgrade BUNDLE WINDOW | download DEVICE_PATH FILE WINDOW\n");
  return 2;
}

int Run(int argc, char** argv) {
  const bool upgrade = argc == 4 && std::strcmp(argv[1], "upgrade") == 0;
  const bool download = argc == 5 && std::strcmp(argv[1], "download") == 0;
  if (!upgrade && !download) return Usage();
  const size_t window = std::strtoul(argv[argc - 1], nullptr, 10);
  if (window == 0 || window > kMaxWindow) return Usage();
  libusb_context* context = nullptr;
  if (libusb_init(&context) != LIBUSB_SUCCESS) return 1;
  Pump pump;
  if (!OpenDevice(context, pump.pipes)) {
    std::fprintf(stderr, "bare_usb_pump: no device with interface %d's bulk pipes\n", kVendorInterface);
    return 1;
  }
  // As many reads queued as writes in flight: the tool's window sets both.
  std::vector<ReadSlot> reads(window);
  const bool ok = upgrade ? Upgrade(context, pump, reads, argv[2]) : Download(context, pump, reads, argv[2], argv[3]);
  StopReads(context, pump, reads);
  libusb_close(pump.pipes.handle);
  libusb_exit(context);
  if (!ok) std::fprintf(stderr, "bare_usb_pump: the %s did not finish\n", argv[1]);
  return ok ? 0 : 1;
}

}  // namespace
}  // namespace ferrolt::bench

int main(int argc, char** argv) { return ferrolt::bench::Run(argc, argv); }
