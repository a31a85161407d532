/* What only the C interface shows: calls with no callbacks at all, a cancel
 * racing the end of an operation, the open's and the upload's options, and no
 * thread of the library's left once a call has returned. Runs against
 * ferrolt-devsim; a plain C program, so the header is held to C as well.
 * Exit status 0 when every check holds. */
#define _GNU_SOURCE
#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "ferrolt/ferrolt.h"

extern char **environ;

enum {
  kStartWaitMs = 10000, /* ferrolt-devsim's socket appears well within this */
  kThreadEndWaitMs = 5000, /* a thread that has ended leaves /proc this soon */
  kPollMs = 20,
  kRaceRounds = 40,
};

static int failures;

#define CHECK(condition)                                                 \
  do {                                                                   \
    if (!(condition)) {                                                  \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                        \
    }                                                                    \
  } while (0)

static void SleepMs(long ms) {
  struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, NULL);
}

static int ThreadCount(void) {
  DIR *tasks = opendir("/proc/self/task");
  int count = 0;
  for (struct dirent *entry; tasks != NULL && (entry = readdir(tasks)) != NULL;)
    if (entry->d_name[0] != '.') ++count;
  if (tasks != NULL) closedir(tasks);
  return count;
}

/* True once the count is back to baseline, within kThreadEndWaitMs. */
static int NoThreadLeft(int baseline) {
  for (int waited = 0; waited < kThreadEndWaitMs; waited += kPollMs) {
    if (ThreadCount() <= baseline) return 1;
    SleepMs(kPollMs);
  }
  return 0;
}

static void *Nothing(void *unused) { return unused; }

static pid_t StartDevsim(const char *folder, char *place, size_t size) {
  char socket[512], root[512];
  snprintf(socket, sizeof socket, "%s/device.sock", folder);
  snprintf(root, sizeof root, "%s/root", folder);
  snprintf(place, size, "emulator:%s", socket);
  char *arguments[] = {DEVSIM_BIN, "--socket", socket, "--root", root, "--version", "4.5.6", NULL};
  pid_t pid = -1;
  if (posix_spawn(&pid, DEVSIM_BIN, NULL, NULL, arguments, environ) != 0) return -1;
  struct stat info;
  for (int waited = 0; waited < kStartWaitMs && stat(socket, &info) != 0; waited += kPollMs) SleepMs(kPollMs);
  return pid;
}

struct Race {
  ferrolt_device *device;
  long delayUs;
};

static void *CancelLater(void *argument) {
  struct Race *race = argument;
  struct timespec pause = {0, race->delayUs * 1000L};
  nanosleep(&pause, NULL);
  ferrolt_cancel(race->device);
  return NULL;
}

static void NullCallbacks(ferrolt_device *device, const char *folder, int baseline) {
  char version[FERROLT_VERSION_SIZE];
  CHECK(ferrolt_version(device, version, sizeof version, NULL) == FERROLT_DONE);
  CHECK(strcmp(version, "4.5.6") == 0);
  CHECK(NoThreadLeft(baseline));
  const ferrolt_callbacks none = {NULL, NULL, NULL, NULL};
  char bundle[512];
  snprintf(bundle, sizeof bundle, "%s/bundle.img", folder);
  FILE *file = fopen(bundle, "wb");
  for (int i = 0; file != NULL && i < 100000; ++i) fputc(i * 7, file);
  if (file != NULL) fclose(file);
  CHECK(ferrolt_upgrade(device, bundle, &none) == FERROLT_DONE);
  CHECK(NoThreadLeft(baseline));
  CHECK(ferrolt_version(NULL, version, sizeof version, NULL) == FERROLT_INVALID_ARGUMENT);
  CHECK(ferrolt_upgrade(device, NULL, NULL) == FERROLT_INVALID_ARGUMENT);
  CHECK(ferrolt_last_message(device, NULL, 0) > 0);
  ferrolt_cancel(device); /* nothing runs: nothing happens */
}

static long MicrosecondsSince(const struct timespec *start) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (now.tv_sec - start->tv_sec) * 1000000L + (now.tv_nsec - start->tv_nsec) / 1000L;
}

/* The cancel lands anywhere from the call's start to a while after its end.
 * Whichever comes first, the call ends as done or cancelled, the device takes
 * the next operation, and no thread is left. */
static void CancelRacingTheEnd(ferrolt_device *device, int baseline) {
  char version[FERROLT_VERSION_SIZE];
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  CHECK(ferrolt_version(device, version, sizeof version, NULL) == FERROLT_DONE);
  const long spreadUs = MicrosecondsSince(&start) * 3 / 2;
  int cancelled = 0;
  for (int round = 0; round < kRaceRounds; ++round) {
    struct Race race = {device, spreadUs * round / kRaceRounds};
    pthread_t canceller;
    pthread_create(&canceller, NULL, CancelLater, &race);
    const ferrolt_status status = ferrolt_version(device, version, sizeof version, NULL);
    pthread_join(canceller, NULL);
    CHECK(status == FERROLT_DONE || status == FERROLT_CANCELLED);
    cancelled += status == FERROLT_CANCELLED;
    CHECK(NoThreadLeft(baseline));
  }
  printf("cancel racing the end: %d of %d rounds cancelled\n", cancelled, kRaceRounds);
  CHECK(ferrolt_version(device, version, sizeof version, NULL) == FERROLT_DONE);
}

/* The open's and the upload's options, on the threads they run on: a capture
 * every transfer is recorded in (by the worker and by the upgrade's reader),
 * and an upload read back. An options struct shorter than the first version
 * is refused, as is an upload flag the library does not know. */
static void Options(const char *place, const char *folder, int baseline) {
  char trace[600], bundle[600];
  snprintf(trace, sizeof trace, "%s/device.pcapng", folder);
  snprintf(bundle, sizeof bundle, "%s/bundle.img", folder);
  ferrolt_open_options options = {.size = sizeof options, .trace_path = trace};
  ferrolt_device *device = NULL;
  CHECK(ferrolt_open_with(place, &options, &device) == FERROLT_DONE);
  if (device == NULL) return;
  char version[FERROLT_VERSION_SIZE];
  CHECK(ferrolt_version(device, version, sizeof version, NULL) == FERROLT_DONE);
  CHECK(ferrolt_upgrade(device, bundle, NULL) == FERROLT_DONE);
  /* The device names an upload by the whole of a path without backslashes. */
  CHECK(chdir(folder) == 0);
  CHECK(ferrolt_upload_with_flags(device, "bundle.img", FERROLT_UPLOAD_VERIFY, NULL) == FERROLT_DONE);
  CHECK(chdir("/") == 0);
  CHECK(ferrolt_upload_with_flags(device, bundle, 0x80u, NULL) == FERROLT_INVALID_ARGUMENT);
  ferrolt_close(device);
  CHECK(NoThreadLeft(baseline));
  FILE *file = fopen(trace, "rb");
  unsigned char head[4] = {0};
  CHECK(file != NULL && fread(head, 1, sizeof head, file) == sizeof head);
  if (file != NULL) fclose(file);
  CHECK(head[0] == 0x0a && head[1] == 0x0d && head[2] == 0x0d && head[3] == 0x0a);
  ferrolt_open_options shorter = {.size = sizeof(size_t)};
  CHECK(ferrolt_open_with(place, &shorter, &device) == FERROLT_INVALID_ARGUMENT);
}

int main(void) {
  char folder[] = "/tmp/ferrolt-c-test.XXXXXX";
  if (mkdtemp(folder) == NULL) return 2;
  char place[600];
  const pid_t devsim = StartDevsim(folder, place, sizeof place);
  if (devsim < 0) return 2;
  /* A thread of our own first: a sanitizer's runtime may start one of its
   * own at the first, which the baseline then counts. */
  pthread_t first;
  pthread_create(&first, NULL, Nothing, NULL);
  pthread_join(first, NULL);
  const int baseline = ThreadCount();

  ferrolt_device *device = NULL;
  CHECK(ferrolt_open(place, &device) == FERROLT_DONE);
  NullCallbacks(device, folder, baseline);
  CancelRacingTheEnd(device, baseline);
  ferrolt_close(device);
  CHECK(NoThreadLeft(baseline));
  Options(place, folder, baseline);

  kill(devsim, SIGTERM);
  waitpid(devsim, NULL, 0);
  char remove[700];
  snprintf(remove, sizeof remove, "rm -rf '%s'", folder);
  if (system(remove) != 0) fprintf(stderr, "could not remove %s\n", folder);
  return failures == 0 ? 0 : 1;
}
