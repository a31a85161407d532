// A umockdev testbed: a private sysfs and /dev that programs started with the
// umockdev preload library see instead of the machine's own. Devices added to
// it get a device node whose ioctls a handler of ours answers. A program
// joins the testbed with LD_PRELOAD=PreloadList() and UMOCKDEV_DIR=Root().
#pragma once

#include <string>

typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _UMockdevIoctlBase UMockdevIoctlBase;

namespace ferrolt::devsim {

class UmockdevTestbed {
 public:
  UmockdevTestbed();
  ~UmockdevTestbed();
  UmockdevTestbed(const UmockdevTestbed&) = delete;
  UmockdevTestbed& operator=(const UmockdevTestbed&) = delete;

  // The testbed's folder (UMOCKDEV_DIR of the programs run in it). Every
  // testbed of this process lies in one short scratch folder under /tmp,
  // removed at exit: a device node's ioctl socket lies below it, and a
  // socket path has room for 107 bytes only.
  const std::string& Root() const { return root_; }

  // Serves the ioctls of the device node with handler. Must come before the
  // device is added: a program that opens a node whose handler is not yet
  // listening is killed.
  bool AttachHandler(const std::string& node, UMockdevIoctlBase* handler, std::string& error);
  // Adds a device from its sysfs record (sysfs entries and device node).
  bool AddDevice(const std::string& record, std::string& error);
  // Removes a device's sysfs entries and its device node.
  void RemoveDevice(const std::string& sysfsPath);
  // Tells the programs watching for hotplug that the device came or went
  // ("add", "remove"). Reaches them only when this process itself runs with
  // the preload library (see RunsPreloaded).
  void SendUevent(const std::string& sysfsPath, const char* action);

 private:
  UMockdevTestbed* testbed_ = nullptr;
  std::string root_;
};

// The LD_PRELOAD value that puts a program into a testbed: the umockdev
// preload library, after this build's sanitizer runtime when there is one
// (a sanitizer insists on coming first).
std::string PreloadList();

// True when this process runs with the umockdev preload library.
bool RunsPreloaded();

}  // namespace ferrolt::devsim
