// The device's side of the log download: a type-3 "Download Logs" request is
// answered with a zip archive of the device's log folder, made afresh for
// every request and sent as a reply stream.
#include <zip.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "devsim/DevicePackets.h"
#include "devsim/FileServices.h"
#include "devsim/ReplyStream.h"

namespace ferrolt::devsim {
namespace {

namespace fs = std::filesystem;

constexpr char kRequestText[] = "Download Logs";
constexpr char kLogFolder[] = "/var/log";
// Beside the log folder, never inside it, so it does not archive itself.
constexpr char kArchiveName[] = ".logs-archive.zip";
// What libzip leaves out: an archive with no entries is its end record alone.
// zip_source_file's length for "to the end of the file".
constexpr zip_int64_t kWholeFile = -1;
constexpr unsigned char kEmptyZip[22] = {0x50, 0x4B, 0x05, 0x06};

// The regular files under folder, as paths relative to it, in a stable order.
// Links are left out: one could point outside the root.
std::vector<fs::path> LogFiles(const fs::path& folder) {
  std::vector<fs::path> files;
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    if (it->symlink_status(error).type() == fs::file_type::regular) files.push_back(fs::relative(it->path(), folder, error));
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool WriteEmptyZip(const fs::path& archive) {
  std::FILE* file = std::fopen(archive.string().c_str(), "wb");
  if (file == nullptr) return false;
  const bool written = std::fwrite(kEmptyZip, 1, sizeof kEmptyZip, file) == sizeof kEmptyZip;
  return std::fclose(file) == 0 && written;
}

// Builds the archive of folder at archive; false (with a note) on failure.
bool BuildArchive(const fs::path& folder, const fs::path& archive, DeviceContext& device) {
  const std::vector<fs::path> files = LogFiles(folder);
  if (files.empty()) return WriteEmptyZip(archive);
  int error = 0;
  zip_t* zip = zip_open(archive.string().c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  if (zip == nullptr) {
    device.Note("logs archive could not be created (libzip error " + std::to_string(error) + ")");
    return false;
  }
  for (const fs::path& name : files) {
    zip_source_t* source = zip_source_file(zip, (folder / name).string().c_str(), 0, kWholeFile);
    if (source == nullptr || zip_file_add(zip, name.generic_string().c_str(), source, ZIP_FL_ENC_UTF_8) < 0) {
      if (source != nullptr) zip_source_free(source);
      device.Note("logs archive could not take " + name.generic_string() + ": " + zip_strerror(zip));
      zip_discard(zip);
      return false;
    }
  }
  if (zip_close(zip) != 0) {
    device.Note(std::string("logs archive could not be written: ") + zip_strerror(zip));
    zip_discard(zip);
    return false;
  }
  return true;
}

class LogsService final : public Service {
 public:
  bool Accept(const Block& block, DeviceContext& device) override {
    if (TypeOf(block) != kTypeLogs || !CrcMatches(block)) return false;
    if (PayloadText(block) != kRequestText) return false;
    stream_.Stop();  // it may still read the archive about to be rebuilt
    const fs::path archive = device.Root() / kArchiveName;
    const fs::path folder = device.DevicePathToLocal(kLogFolder);
    const bool built = BuildArchive(folder, archive, device);
    device.Note("logs requested: " + std::to_string(LogFiles(folder).size()) + " files" +
                (built ? "" : ", archive failed"));
    // A failed archive streams as a missing file: 0 0, then the end reply.
    stream_.Begin(built ? archive : fs::path(), device);
    stream_.Pump(device);
    return true;
  }
  void Poll(DeviceContext& device) override { stream_.Pump(device); }
  bool Busy() const override { return stream_.Active(); }
  void LinkClosed(DeviceContext&) override { stream_.Stop(); }

 private:
  ReplyStream stream_{{kTypeLogs, "starting logs", "ending logs", true}};
};

}  // namespace

std::unique_ptr<Service> CreateLogsService() { return std::make_unique<LogsService>(); }

}  // namespace ferrolt::devsim
