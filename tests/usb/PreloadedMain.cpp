// The USB tests run with the umockdev preload library themselves: only then
// do the hotplug events that the harness sends for an unplug or a replug reach
// the tool. Started without it, the program starts itself again with it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "devsim/usbdevfs/UmockdevTestbed.h"

int main(int argc, char** argv) {
  using ferrolt::devsim::PreloadList;
  if (!ferrolt::devsim::RunsPreloaded()) {
    const char* inherited = std::getenv("LD_PRELOAD");
    const std::string preload =
        PreloadList() + (inherited != nullptr && *inherited != '\0' ? std::string(":") + inherited : "");
    setenv("LD_PRELOAD", preload.c_str(), 1);
    execv("/proc/self/exe", argv);
    std::perror("cannot start again with the umockdev preload library");
    return EXIT_FAILURE;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
