// Runs a command and prints its CPU time and peak resident memory from the kernel's accounting:
//   emberline_measure COMMAND [ARG...]
// prints "user_s sys_s cpu_s maxrss_kib" on the standard error stream.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s COMMAND [ARG...]\n", argv[0]);
    return 2;
  }
  pid_t pid = fork();
  if (pid == 0) {
    execvp(argv[1], argv + 1);
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  const double user = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6;
  const double sys = usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6;
  std::fprintf(stderr, "%.3f %.3f %.3f %ld\n", user, sys, user + sys, usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
