/* The least a thread walk can do: list /proc and every task directory, and open, read and close
 * each thread's time_in_state, with no parsing and no bookkeeping. The credits snapshot is
 * measured against this. */

#include "thread_floor.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static long read_task(int pid, char* buffer, size_t size) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/task", pid);
  DIR* dir = opendir(path);
  if (dir == NULL) return 0;
  long threads = 0;
  struct dirent* entry;
  while ((entry = readdir(dir)) != NULL) {
    if (entry->d_type != DT_DIR) continue;
    int tid = atoi(entry->d_name);
    if (tid == 0) continue;
    char file[96];
    snprintf(file, sizeof file, "/proc/%d/task/%d/time_in_state", pid, tid);
    int fd = open(file, O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    while (read(fd, buffer, size) > 0) {
    }
    close(fd);
    ++threads;
  }
  closedir(dir);
  return threads;
}

long thread_floor_read_all(void) {
  char buffer[4096];
  DIR* proc = opendir("/proc");
  if (proc == NULL) return 0;
  long threads = 0;
  struct dirent* entry;
  while ((entry = readdir(proc)) != NULL) {
    /* The type first: /proc lists much that is no process, and atoi is dearer than a test. */
    if (entry->d_type != DT_DIR) continue;
    int pid = atoi(entry->d_name);
    if (pid != 0) threads += read_task(pid, buffer, sizeof buffer);
  }
  closedir(proc);
  return threads;
}
