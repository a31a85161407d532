#include "transfer/DownloadAudit.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "transfer/DownloadReply.h"

namespace ferrolt {

namespace {

constexpr const char* kMarkSuffix = ".incomplete";

}  // namespace

void DownloadAudit::StartReply(int32_t size, int32_t total, bool readable) {
  announced_ = readable;
  size_ = readable ? size : 0;
  total_ = readable ? total : 0;
  packets_ = 0;
  bytes_ = 0;
}

void DownloadAudit::DataPacket(uint32_t number, size_t length) {
  if (firstMisfit_.empty()) {
    if (!announced_ && packets_ == 0) {
      firstMisfit_ = "data packet " + std::to_string(number) + " came before the start reply";
    } else if (number != static_cast<uint32_t>(packets_)) {
      firstMisfit_ = "packet " + std::to_string(number) + " came where " + std::to_string(packets_) + " was due";
    }
  }
  ++packets_;
  bytes_ += static_cast<int64_t>(length);
}

void DownloadAudit::WriteFailed(const std::string& reason) {
  if (!writeFailed_) console_.Note("writing " + path_ + " failed: " + reason + ".");
  writeFailed_ = true;
}

void DownloadAudit::Restart() {
  StartReply(0, 0, false);
  firstMisfit_.clear();
  writeFailed_ = false;
}

bool DownloadAudit::Finish(bool reachedEnd) {
  const std::string mark = path_ + kMarkSuffix;
  const std::string problem = Problem(reachedEnd);
  if (problem.empty()) {
    std::remove(mark.c_str());
    return true;
  }
  const std::string report = path_ + " is incomplete: " + problem;
  console_.Note(report);
  std::ofstream(mark) << report << '\n';
  return false;
}

void SaveDataPacket(const Block& packet, OutputFile& output, DownloadAudit& audit) {
  const size_t length = DataLength(packet.data());
  audit.DataPacket(PacketNumber(packet.data()), length);
  if (!output.Append(packet.data() + kPayloadOffset, length)) audit.WriteFailed(std::strerror(errno));
}

std::string DownloadAudit::Problem(bool reachedEnd) const {
  const std::string arrived =
      std::to_string(bytes_) + " bytes in " + std::to_string(packets_) + " packets arrived";
  const std::string announced =
      announced_ ? "the device announced " + std::to_string(size_) + " bytes in " + std::to_string(total_) + " packets"
                 : "the device announced no size";
  if (writeFailed_) return "a write to it failed (" + arrived + ").";
  if (!firstMisfit_.empty()) return firstMisfit_ + " (" + announced + "; " + arrived + ").";
  if (announced_ && (packets_ != total_ || bytes_ != size_)) return announced + "; " + arrived + ".";
  if (!reachedEnd) return "the download ended early; " + arrived + ".";
  return {};
}

}  // namespace ferrolt
