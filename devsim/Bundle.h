// The upgrade bundle as the device reads it. A bundle is any sequence of
// bytes; one that opens with the header line "FERROLT-BUNDLE version=X.Y.Z"
// carries the version the device reports once it has installed it.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace ferrolt::devsim {

inline constexpr const char* kBundleHeaderPrefix = "FERROLT-BUNDLE version=";
// A version must fit the device's version reply with room to spare.
inline constexpr size_t kMaxBundleVersionLength = 40;

// Where the device keeps what the last upgrade received, under its root.
std::filesystem::path BundleImagePath(const std::filesystem::path& root);

// The version named by a bundle's first line, when it has a valid header:
// 1 to kMaxBundleVersionLength characters of letters, digits, '.', '-', '_'
// or '+', ended by a line end.
std::optional<std::string> VersionFromHeader(const std::string& firstBytes);
std::optional<std::string> BundleVersion(const std::filesystem::path& bundle);

}  // namespace ferrolt::devsim
