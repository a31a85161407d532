// The guest kernel's own capture of one USB bus, for comparison with the
// tool's: usbmon's binary interface (Documentation/usb/usbmon.rst, "Raw
// binary format and API") hands over each event with the 64-byte header that
// LINKTYPE_USB_LINUX_MMAPPED packets begin with, so each event is written as
// the kernel gave it, one packet of a pcapng file.
//   usbmon-record DEVICE FILE
// DEVICE is /dev/usbmonN; FILE is created once the monitor is open, and
// filled when SIGTERM ends the recording.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <vector>

#include "capture/Pcapng.h"
#include "capture/UsbmonEvent.h"

namespace {

using namespace ferrolt::capture;

// mon_bin.c's ioctls: the ring's size, the counts of events queued and
// dropped, and the next event with its 64-byte header.
struct GetArg {
  void* header;
  void* data;
  size_t alloc;
};
struct Stats {
  uint32_t queued;
  uint32_t dropped;
};
constexpr unsigned kMonMagic = 0x92;
constexpr unsigned long kSetRingSize = _IO(kMonMagic, 4);
constexpr unsigned long kGetStats = _IOR(kMonMagic, 3, Stats);
constexpr unsigned long kGetEvent = _IOW(kMonMagic, 10, GetArg);
// The largest ring the kernel allows (BUFF_MAX): an emulated guest is slow to
// read, and a full ring drops events. Of a transfer, the kernel keeps at most
// a fifth of the ring's size.
constexpr int kRingSize = 1200 * 1024;
constexpr size_t kDataLimit = kRingSize / 5;
// How long one wait for events lasts, so that SIGTERM is seen between waits.
constexpr int kPollMilliseconds = 100;

volatile sig_atomic_t stopping = 0;
void Stop(int) { stopping = 1; }

template <typename T>
T FieldAt(const UsbmonHeader& header, size_t at) {
  T value;
  std::memcpy(&value, &header[at], sizeof value);
  return value;
}

// Every event until SIGTERM and the ring is empty, as pcapng packets.
void Record(int monitor, std::vector<uint8_t>& bytes) {
  UsbmonHeader header{};
  std::vector<uint8_t> data(kDataLimit);
  GetArg next{header.data(), data.data(), data.size()};
  pollfd wait{monitor, POLLIN, 0};
  for (;;) {
    if (ioctl(monitor, kGetEvent, &next) == 0) {
      const uint64_t microseconds =
          FieldAt<int64_t>(header, kSecondsAt) * 1000000 + FieldAt<int32_t>(header, kMicrosecondsAt);
      AppendEnhancedPacket(bytes, microseconds, header, {data.data(), FieldAt<uint32_t>(header, kDataLengthAt)});
    } else if (errno != EAGAIN || stopping) {
      return;
    } else {
      poll(&wait, 1, kPollMilliseconds);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: usbmon-record DEVICE FILE\n");
    return 2;
  }
  struct sigaction stop {};
  stop.sa_handler = Stop;
  sigaction(SIGTERM, &stop, nullptr);
  const int monitor = open(argv[1], O_RDONLY | O_NONBLOCK);
  if (monitor < 0 || ioctl(monitor, kSetRingSize, kRingSize) != 0) {
    std::perror(argv[1]);
    return 1;
  }
  std::FILE* file = std::fopen(argv[2], "wb");
  if (file == nullptr) {
    std::perror(argv[2]);
    return 1;
  }
  std::vector<uint8_t> bytes;
  AppendSectionHeader(bytes, "usbmon-record");
  AppendInterfaceDescription(bytes, kLinkTypeUsbLinuxMmapped, argv[1]);
  Record(monitor, bytes);
  Stats stats{};
  if (ioctl(monitor, kGetStats, &stats) == 0 && stats.dropped != 0)
    std::fprintf(stderr, "usbmon-record: the kernel dropped %u events\n", stats.dropped);
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  return std::fclose(file) == 0 && written ? 0 : 1;
}
