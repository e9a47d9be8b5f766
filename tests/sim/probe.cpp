// Runs inside the simulated headset: a child exits cleanly through the sanitizer runtime, then
// this process leaves the sanitizer something to report. Both need /proc/self, /proc/<pid>/task
// and fork to work in there.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

int shared_counter;

int main() {
  if (fork() == 0) return 0;
  int status = 0;
  wait(&status);
  if (status != 0) return 2;  // and so no report
  std::thread other([] {
#if defined(__SANITIZE_THREAD__)
    ++shared_counter;
#else
    // The block's only pointer lives on this thread's stack, gone by the time of the leak check.
    char* volatile block = static_cast<char*>(malloc(64));
    block[0] = 1;
#endif
  });
  ++shared_counter;  // races with the other thread when it counts too
  other.join();
  return 0;
}
