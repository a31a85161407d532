#include "devsim/RootPath.h"

#include <system_error>

namespace ferrolt::devsim {

namespace fs = std::filesystem;

fs::path ResolveInRoot(const fs::path& root, const std::string& devicePath) {
  const fs::path inside = fs::path(devicePath).relative_path().lexically_normal();
  if (!inside.empty() && *inside.begin() == "..") return {};
  std::error_code error;
  const fs::path resolved = fs::weakly_canonical(root / inside, error);
  if (error) return {};
  const fs::path below = resolved.lexically_relative(root);
  if (below.empty() || *below.begin() == "..") return {};
  // weakly_canonical stops following links at the first part that does not
  // exist: a dangling link there could still point out once written through.
  fs::path walked = root;
  for (const fs::path& part : below) {
    walked /= part;
    if (fs::is_symlink(walked, error)) return {};
  }
  return resolved;
}

}  // namespace ferrolt::devsim
