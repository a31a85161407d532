// The device's side of the whole-file exchanges.
#pragma once

#include <memory>

#include "devsim/Service.h"

namespace ferrolt::devsim {

std::unique_ptr<Service> CreateUpgradeService();
std::unique_ptr<Service> CreateUploadService();
std::unique_ptr<Service> CreateDownloadService();
std::unique_ptr<Service> CreateLogsService();

}  // namespace ferrolt::devsim
