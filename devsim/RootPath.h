// Device paths inside the root folder. The device sees nothing but its root:
// a path resolves with the host's symlinks followed, and one that lands
// outside the root (through "..", or a link pointing out) resolves to nothing.
#pragma once

#include <filesystem>
#include <string>

namespace ferrolt::devsim {

// root is canonical; devicePath is absolute on the device or relative to its
// "/". The resolved host path, or empty when it would leave the root.
std::filesystem::path ResolveInRoot(const std::filesystem::path& root, const std::string& devicePath);

}  // namespace ferrolt::devsim
