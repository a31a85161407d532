#include "devsim/Bundle.h"

#include <cctype>
#include <cstring>
#include <fstream>

namespace ferrolt::devsim {
namespace {

// The header's prefix, the longest version and its line end.
constexpr size_t kHeaderReadSize = 64 + kMaxBundleVersionLength;

bool IsVersionCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_' || c == '+';
}

}  // namespace

std::filesystem::path BundleImagePath(const std::filesystem::path& root) { return root / "upgrade" / "bundle.img"; }

std::optional<std::string> VersionFromHeader(const std::string& firstBytes) {
  const size_t prefixLength = std::strlen(kBundleHeaderPrefix);
  if (firstBytes.compare(0, prefixLength, kBundleHeaderPrefix) != 0) return std::nullopt;
  const size_t lineEnd = firstBytes.find('\n', prefixLength);
  if (lineEnd == std::string::npos) return std::nullopt;
  std::string version = firstBytes.substr(prefixLength, lineEnd - prefixLength);
  if (!version.empty() && version.back() == '\r') version.pop_back();
  if (version.empty() || version.size() > kMaxBundleVersionLength) return std::nullopt;
  for (char c : version) {
    if (!IsVersionCharacter(c)) return std::nullopt;
  }
  return version;
}

std::optional<std::string> BundleVersion(const std::filesystem::path& bundle) {
  std::ifstream in(bundle, std::ios::binary);
  std::string firstBytes(kHeaderReadSize, '\0');
  in.read(firstBytes.data(), static_cast<std::streamsize>(firstBytes.size()));
  firstBytes.resize(static_cast<size_t>(in.gcount()));
  return VersionFromHeader(firstBytes);
}

}  // namespace ferrolt::devsim
