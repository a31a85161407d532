// The device's side of the short command exchanges: version, CLI session,
// and the texts it only records (reliability test, touch-controller reboot,
// cancel).
#pragma once

#include <chrono>
#include <memory>

#include "devsim/Service.h"

namespace ferrolt::devsim {

std::unique_ptr<Service> CreateVersionService();
// Commands run from the built-in set, or by the host's shell when hostShell
// is set; those still running after timeout are killed.
std::unique_ptr<Service> CreateCliService(std::chrono::seconds timeout, bool hostShell);
std::unique_ptr<Service> CreateOrtService();
std::unique_ptr<Service> CreateCaptouchService();
std::unique_ptr<Service> CreateCancelService();

}  // namespace ferrolt::devsim
