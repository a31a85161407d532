// The device's side of the file download: a type-6 request naming a device
// path is answered with the file as a reply stream.
#include <memory>
#include <string>

#include "devsim/DevicePackets.h"
#include "devsim/FileServices.h"
#include "devsim/ReplyStream.h"

namespace ferrolt::devsim {
namespace {

constexpr char kRequestPrefix[] = "Starting download ";

class DownloadService final : public Service {
 public:
  bool Accept(const Block& block, DeviceContext& device) override {
    if (TypeOf(block) != kTypeDownload || !CrcMatches(block)) return false;
    const std::string text = PayloadText(block);
    if (text.rfind(kRequestPrefix, 0) != 0) return false;
    const std::string path = text.substr(sizeof kRequestPrefix - 1);
    device.Note("download requested " + path);
    stream_.Begin(device.DevicePathToLocal(path), device);
    stream_.Pump(device);
    return true;
  }
  void Poll(DeviceContext& device) override { stream_.Pump(device); }
  bool Busy() const override { return stream_.Active(); }
  void LinkClosed(DeviceContext&) override { stream_.Stop(); }

 private:
  ReplyStream stream_{{kTypeDownload, "starting download", "ending download", false}};
};

}  // namespace

std::unique_ptr<Service> CreateDownloadService() { return std::make_unique<DownloadService>(); }

}  // namespace ferrolt::devsim
