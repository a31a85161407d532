// A capture of one device's transfers as Linux's usbmon shows them on its
// bus, in a pcapng file that Wireshark and tshark read
// (LINKTYPE_USB_LINUX_MMAPPED). It opens with the two descriptor reads of
// enumeration, so a reader knows the device's ids and the class of each
// interface; then each bulk transfer is a submission and a callback, as the
// kernel records a URB.
//
// Cheap for each block: records gather in memory and are written out once
// kWriteOutBytes have gathered or kWriteOutInterval has passed since the
// last write-out (seen at the next record), and at Close. Each write-out is
// handed to the system at once, so a crash of the process loses at most the
// records of the last interval.
//
// A file that cannot be created or written is said once on standard error;
// the capture then records nothing, and its user goes on unchanged. Every
// call may come from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "capture/UsbDeviceModel.h"
#include "capture/UsbmonEvent.h"

namespace ferrolt::capture {

inline constexpr size_t kWriteOutBytes = 256 * 1024;
inline constexpr std::chrono::seconds kWriteOutInterval{1};

// How a transfer ended, as its host saw it.
enum class TransferEnd {
  Done,       // it moved its bytes
  Withdrawn,  // the host took it back: its wait had run out, or a flush discarded it
  Closed,     // the link closed with it outstanding
  Failed,     // it failed on its own: a stall, a device gone, an error on the bus
};

class UsbCapture {
 public:
  // Takes the line the capture says when its file cannot be created or
  // written, without its line end: a program prints it, a library keeps quiet.
  using FailureSink = std::function<void(const std::string& line)>;
  // Prints the line on standard error.
  static void SayOnStandardError(const std::string& line);

  // programName starts the failure line and names the capture's writer.
  // Null when the file cannot be created or written (that line said).
  static std::unique_ptr<UsbCapture> Create(const std::string& path, const std::string& programName,
                                            FailureSink said = SayOnStandardError);
  ~UsbCapture();
  UsbCapture(const UsbCapture&) = delete;
  UsbCapture& operator=(const UsbCapture&) = delete;

  // The reads of the device and configuration descriptors, as a host makes
  // them at enumeration; only the first call of a capture records them.
  void RecordDescriptors(const UsbDeviceModel& model);
  // A bulk transfer handed to the bus: an OUT with its bytes, an IN with the
  // length it asks for. Returns the id that its end is recorded with.
  uint64_t Submit(uint8_t endpoint, const uint8_t* data, uint32_t length);
  // The id the latest submission was given; those before it have smaller ones.
  uint64_t LastId() const { return nextId_.load() - 1; }
  // A submission refused at once; no end follows.
  void Refuse(uint64_t id, uint8_t endpoint);
  // A transfer's end: for an IN, data holds the count bytes it brought; an
  // OUT passes null and the count it moved.
  void Complete(uint64_t id, uint8_t endpoint, TransferEnd end, const uint8_t* data, uint32_t count);
  // Writes out what has gathered and closes the file; later records are dropped.
  void Close();

 private:
  UsbCapture(std::FILE* file, std::string path, std::string programName, FailureSink said);
  void RecordDescriptorReadLocked(uint8_t descriptorType, const std::vector<uint8_t>& descriptor);
  // event's time and place are set here; data is the dataLength bytes that
  // follow its header. Record takes the lock for the copy alone.
  void Record(UsbmonEvent event, const uint8_t* data);
  void RecordLocked(UsbmonEvent event, const uint8_t* data);
  static UsbmonHeader HeaderAt(UsbmonEvent& event, int64_t microsecondsSinceEpoch, const uint8_t* data);
  void GatherLocked(int64_t microsecondsSinceEpoch, const UsbmonHeader& header, std::span<const uint8_t> data);
  void WriteOutLocked(int64_t microsecondsSinceEpoch);
  void SayFailureLocked(int error);
  void CloseLocked();

  const std::string path_;
  const std::string programName_;
  const FailureSink said_;
  std::atomic<uint64_t> nextId_{1};  // taken without the lock
  std::mutex mutex_;                 // guards every field below
  std::FILE* file_;                  // null once closed or failed
  std::vector<uint8_t> gathered_;
  int64_t lastWriteOut_ = 0;  // microseconds since the epoch
  bool descriptorsRecorded_ = false;
};

}  // namespace ferrolt::capture
