#include "transfer/ReadBack.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>

#include "link/Reporting.h"
#include "transfer/DownloadAudit.h"
#include "transfer/DownloadFile.h"
#include "transfer/OutputFile.h"
#include "transfer/ReceiveDownload.h"
#include "transfer/ReconnectPolicy.h"

namespace ferrolt {

namespace {

namespace fs = std::filesystem;

constexpr const char* kUploadFolder = "/tmp/";

std::optional<std::string> ReadWhole(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// A file of our own in the system's temporary folder for the copy.
fs::path CopyPath() {
  std::error_code error;
  const fs::path folder = fs::temp_directory_path(error);
  std::random_device random;
  return (error ? fs::path(".") : folder) / ("ferrolt-readback-" + std::to_string(random()) + ".bin");
}

// What the comparison found, as the note says it.
std::string Verdict(const std::string& devicePath, const std::string& local, const std::string& copy) {
  size_t at = 0;
  while (at < local.size() && at < copy.size() && local[at] == copy[at]) ++at;
  if (at == local.size() && at == copy.size())
    return "verified: " + devicePath + " on the device holds the " + std::to_string(local.size()) + " bytes sent.";
  return devicePath + " on the device differs from the file sent from byte " + std::to_string(at) + " on (" +
         std::to_string(copy.size()) + " bytes read back, " + std::to_string(local.size()) + " sent).";
}

// The file download's exchange, quiet, on the upload's link; a cancel ends
// it as it ends the upload. True when it reached the device's end reply with
// a whole file. The worker's own way out is the upload's.
bool DownloadQuietly(const OperationContext& op, const std::string& devicePath, const fs::path& copy) {
  const std::optional<Block> request = FileDownloadRequest(devicePath);
  OutputFile output;
  if (!request || !output.Create(copy.string())) return false;
  OperationOutcome outcome;
  const OperationContext quiet{op.link,        op.running, op.tearingDown,   op.reader, op.linkMutex,
                               ProgressOrSilent(nullptr), LogOrSilent(nullptr), SilentConsole(), outcome,
                               false};
  if (SendWithReconnect(quiet, *request, {.subject = "the read-back request"}) != SendResult::Written) return false;
  DownloadAudit audit(copy.string(), SilentConsole());
  Receipt receipt;
  return ReceiveDownload(quiet, FileDownloadReplies(SilentConsole()), output, audit, receipt) ==
             ReceiveEnd::Complete &&
         audit.Finish(true);
}

}  // namespace

void ReadBackUpload(const OperationContext& op, const std::string& localPath, const std::string& deviceName) {
  const std::string devicePath = kUploadFolder + deviceName;
  const fs::path copy = CopyPath();
  const bool whole = DownloadQuietly(op, devicePath, copy);
  const std::optional<std::string> back = ReadWhole(copy);
  std::error_code error;
  fs::remove(copy, error);
  fs::remove(copy.string() + ".incomplete", error);
  const std::optional<std::string> local = ReadWhole(localPath);
  if (!whole || !back || !local) {
    op.console.Note("the device could not send " + devicePath + " back, so the upload is not verified.");
    op.outcome.MarkIncomplete();
    return;
  }
  const std::string verdict = Verdict(devicePath, *local, *back);
  op.console.Note(verdict);
  if (*local != *back) op.outcome.MarkIncomplete();
}

}  // namespace ferrolt
