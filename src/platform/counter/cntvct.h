#pragma once

// The virtual counter that the DSP stamps its task records with. On arm64 it is the register
// itself; elsewhere a count at the same rate derived from CLOCK_MONOTONIC, which is what a
// simulated DSP stamps its records with too.

#include <cstdint>

#if !defined(__aarch64__)
#include <time.h>
#endif

namespace emberline::platform {

// Ticks per nanosecond: 19.2 MHz.
inline constexpr double kCntvctTicksPerNs = 0.0192;

inline std::uint64_t read_cntvct() {
#if defined(__aarch64__)
  std::uint64_t ticks;
  asm volatile("mrs %0, cntvct_el0" : "=r"(ticks));
  return ticks;
#else
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const std::uint64_t ns = static_cast<std::uint64_t>(now.tv_sec) * 1000000000u +
                           static_cast<std::uint64_t>(now.tv_nsec);
  // 0.0192 = 12 / 625, in integers so that no nanosecond is lost to rounding.
  return ns / 625 * 12 + ns % 625 * 12 / 625;
#endif
}

// The counter in whole microseconds, the unit of the DSP's records.
inline std::uint64_t cntvct_to_us(std::uint64_t ticks) {
  // 19.2 ticks per microsecond = 96 / 5.
  return ticks / 96 * 5 + ticks % 96 * 5 / 96;
}

}  // namespace emberline::platform
