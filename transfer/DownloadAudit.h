// What a download checks as the device's replies arrive: the data packets
// against the start reply's size and count, each packet's number against
// the one expected next, and every write to the file. The file is written as
// the packets come whatever they say, past the announced size too; one that
// disagrees with what was announced is reported in a note on the console and
// marked incomplete by a file beside it, <path>.incomplete, holding the same
// report.
#pragma once

#include <cstdint>
#include <string>

#include "link/ConsoleSink.h"
#include "link/DevicePacket.h"
#include "transfer/OutputFile.h"

namespace ferrolt {

class DownloadAudit {
 public:
  DownloadAudit(std::string path, ConsoleSink& console) : path_(std::move(path)), console_(console) {}

  // A start reply; readable tells whether its two numbers could be read.
  // Counting starts again from it.
  void StartReply(int32_t size, int32_t total, bool readable);
  // A data packet of length bytes, about to be written.
  void DataPacket(uint32_t number, size_t length);
  // A write to the file failed; reported once, at once.
  void WriteFailed(const std::string& reason);
  // The attempt is thrown away and the file emptied (a log download that
  // starts over).
  void Restart();
  // The download's end, reached or not: a file that disagrees is reported
  // and marked; a whole one loses any mark an earlier run left. True for a
  // whole file.
  bool Finish(bool reachedEnd);

  int64_t BytesArrived() const { return bytes_; }
  bool Announced() const { return announced_; }

 private:
  std::string Problem(bool reachedEnd) const;

  std::string path_;
  ConsoleSink& console_;
  bool announced_ = false;
  int32_t size_ = 0;
  int32_t total_ = 0;
  int32_t packets_ = 0;
  int64_t bytes_ = 0;
  // The first packet whose number or place was wrong, as words.
  std::string firstMisfit_;
  bool writeFailed_ = false;
};

// A data packet's bytes (its length byte, cut to 57) audited and appended
// to output.
void SaveDataPacket(const Block& packet, OutputFile& output, DownloadAudit& audit);

}  // namespace ferrolt
