#include "devsim/usbdevfs/UmockdevTestbed.h"

#include <link.h>
#include <umockdev.h>

#include <cstdlib>
#include <filesystem>

namespace ferrolt::devsim {
namespace {

constexpr const char* kPreloadLibrary = "libumockdev-preload.so.0";
constexpr const char* kScratchPattern = "/tmp/ferrolt-usb-XXXXXX";

// GLib reads TMPDIR once, the first time a folder is asked of it, and umockdev
// makes each testbed there. It is shown a short folder of ours that first
// time, whatever TMPDIR says (a build folder's path can be long), and the
// folder goes when the process ends.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::string path = kScratchPattern;
    if (mkdtemp(path.data()) == nullptr) return;
    const char* inherited = std::getenv("TMPDIR");
    const std::string saved = inherited != nullptr ? inherited : "";
    setenv("TMPDIR", path.c_str(), 1);
    const bool taken = path == g_get_tmp_dir();
    if (inherited != nullptr) {
      setenv("TMPDIR", saved.c_str(), 1);
    } else {
      unsetenv("TMPDIR");
    }
    // GLib had chosen its folder before: the testbeds stay there.
    if (taken) {
      path_ = path;
    } else {
      std::error_code ignored;
      std::filesystem::remove(path, ignored);
    }
  }
  ~ScratchFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

 private:
  std::filesystem::path path_;
};

void UseScratchFolder() { static const ScratchFolder folder; }

std::string TakeError(GError* error) {
  std::string text = error != nullptr ? error->message : "unknown error";
  if (error != nullptr) g_error_free(error);
  return text;
}

// The path of the first loaded object whose name contains part, or "".
std::string LoadedObject(const char* part) {
  struct Search {
    const char* part;
    std::string found;
  } search{part, {}};
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* data) {
        auto* search = static_cast<Search*>(data);
        if (info->dlpi_name == nullptr || std::string(info->dlpi_name).find(search->part) == std::string::npos)
          return 0;
        search->found = info->dlpi_name;
        return 1;
      },
      &search);
  return search.found;
}

}  // namespace

UmockdevTestbed::UmockdevTestbed() {
  UseScratchFolder();
  testbed_ = umockdev_testbed_new();
  gchar* root = umockdev_testbed_get_root_dir(testbed_);
  root_ = root;
  g_free(root);
}

UmockdevTestbed::~UmockdevTestbed() { g_object_unref(testbed_); }

bool UmockdevTestbed::AttachHandler(const std::string& node, UMockdevIoctlBase* handler, std::string& error) {
  GError* failure = nullptr;
  if (umockdev_testbed_attach_ioctl(testbed_, node.c_str(), handler, &failure)) return true;
  error = "cannot attach the ioctl handler to " + node + ": " + TakeError(failure);
  return false;
}

bool UmockdevTestbed::AddDevice(const std::string& record, std::string& error) {
  GError* failure = nullptr;
  if (umockdev_testbed_add_from_string(testbed_, record.c_str(), &failure)) return true;
  error = "cannot add the device: " + TakeError(failure);
  return false;
}

void UmockdevTestbed::RemoveDevice(const std::string& sysfsPath) {
  umockdev_testbed_remove_device(testbed_, sysfsPath.c_str());
}

void UmockdevTestbed::SendUevent(const std::string& sysfsPath, const char* action) {
  umockdev_testbed_uevent(testbed_, sysfsPath.c_str(), action);
}

std::string PreloadList() {
  for (const char* runtime : {"libasan.so", "libtsan.so"}) {
    const std::string path = LoadedObject(runtime);
    if (!path.empty()) return path + ":" + kPreloadLibrary;
  }
  return kPreloadLibrary;
}

bool RunsPreloaded() { return !LoadedObject("libumockdev-preload").empty(); }

}  // namespace ferrolt::devsim

#if defined(__SANITIZE_THREAD__)
// The testbed's worker thread and ours meet inside GLib, which is not built
// for ThreadSanitizer and hands data between threads with futexes it cannot
// see. What GLib does is left out; our own handler's state is still checked.
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so.0\n"
         "called_from_lib:libgobject-2.0.so.0\n"
         "called_from_lib:libgio-2.0.so.0\n"
         "called_from_lib:libumockdev.so.0\n";
}
#endif
