// Runs inside the simulated headset: a child exits cleanly through the sanitizer runtime, then
// this process leaves the sanitizer something to report. Both need /proc/self, /proc/<pid>/task
// and fork to work in there.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#if defined(__SANITIZE_THREAD__)
int shared_counter;
void leave_a_report() {
  std::thread other([] { ++shared_counter; });
  ++shared_counter;
  other.join();
}
#else
// The block's only pointer lives on a thread's stack, which is gone by the time of the leak check.
void leave_a_report() {
  std::thread([] {
    char* volatile block = static_cast<char*>(malloc(64));
    block[0] = 1;
  }).join();
}
#endif

int main() {
  pid_t child = fork();
  if (child == 0) exit(0);
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "probe: child failed\n");
    return 2;
  }
  leave_a_report();
  return 0;
}
