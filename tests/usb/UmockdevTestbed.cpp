#include "tests/usb/UmockdevTestbed.h"

#include <link.h>
#include <umockdev.h>

namespace ferrolt::test::usb {
namespace {

constexpr const char* kPreloadLibrary = "libumockdev-preload.so.0";

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

UmockdevTestbed::UmockdevTestbed() : testbed_(umockdev_testbed_new()) {
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

ToolEnvironment UmockdevTestbed::Environment() const {
  return {{{"LD_PRELOAD", PreloadList()}, {"UMOCKDEV_DIR", root_}}, {"FERROLT_EMULATOR"}};
}

std::string PreloadList() {
  for (const char* runtime : {"libasan.so", "libtsan.so"}) {
    const std::string path = LoadedObject(runtime);
    if (!path.empty()) return path + ":" + kPreloadLibrary;
  }
  return kPreloadLibrary;
}

bool RunsPreloaded() { return !LoadedObject("libumockdev-preload").empty(); }

}  // namespace ferrolt::test::usb

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
