/* ferrolt.dll as a Windows program uses it: linked through its import
 * library, loaded from beside the program, it opens the device at the place
 * given and reads its version.
 *   library_version PLACE EXPECTED_VERSION
 * Exit status 0 when the version read is EXPECTED_VERSION. */
#include <stdio.h>
#include <string.h>

#include "ferrolt/ferrolt.h"

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: library_version PLACE EXPECTED_VERSION\n");
    return 2;
  }
  ferrolt_device *device = NULL;
  ferrolt_status status = ferrolt_open(argv[1], &device);
  if (status != FERROLT_DONE) {
    fprintf(stderr, "ferrolt_open: status %d\n", (int)status);
    return 1;
  }
  char version[FERROLT_VERSION_SIZE];
  status = ferrolt_version(device, version, sizeof version, NULL);
  char message[256];
  ferrolt_last_message(device, message, sizeof message);
  ferrolt_close(device);
  if (status != FERROLT_DONE) {
    fprintf(stderr, "ferrolt_version: status %d: %s\n", (int)status, message);
    return 1;
  }
  printf("version %s\n", version);
  return strcmp(version, argv[2]) == 0 ? 0 : 1;
}
