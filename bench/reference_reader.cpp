// The least a power sampler can do: the same two file reads per 10 ms tick, nothing else. The
// tool's whole-process cost is compared against this.
//   reference_reader SECONDS

#include <stdio_ext.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

int main(int argc, char** argv) {
  const long seconds = argc > 1 ? std::atol(argv[1]) : 60;
  FILE* current = std::fopen("/sys/class/power_supply/battery/current_now", "re");
  FILE* voltage = std::fopen("/sys/class/power_supply/battery/voltage_now", "re");
  if (current == nullptr || voltage == nullptr) return 1;
  long current_raw = 0, voltage_raw = 0;
  double sum = 0;
  timespec next{};
  clock_gettime(CLOCK_MONOTONIC, &next);
  for (long tick = 0; tick < seconds * 100; ++tick) {
    __fpurge(current);  // else glibc's rewind may serve the old value from its buffer
    __fpurge(voltage);
    std::rewind(current);
    std::rewind(voltage);
    if (std::fscanf(current, "%ld", &current_raw) != 1) return 1;
    if (std::fscanf(voltage, "%ld", &voltage_raw) != 1) return 1;
    sum += static_cast<float>(current_raw) / 1e6f * static_cast<float>(voltage_raw) / 1e6f;
    next.tv_nsec += 10'000'000;
    if (next.tv_nsec >= 1'000'000'000) {
      next.tv_nsec -= 1'000'000'000;
      ++next.tv_sec;
    }
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
  }
  std::printf("%.3f\n", sum);
  return 0;
}
