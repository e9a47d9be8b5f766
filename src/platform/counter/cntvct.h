#pragma once

// The virtual counter in the units of the DSP's task records. On arm64 it is the register
// itself; elsewhere a count at the same rate derived from CLOCK_MONOTONIC, which is what a
// simulated DSP stamps its records with too.

#include <cstdint>

#include "platform/counter/counter.h"

namespace emberline::platform {

// Ticks per nanosecond: 19.2 MHz.
inline constexpr double kCntvctTicksPerNs = 0.0192;

// Which counter this is (the register, or its stand-in) the build chooses, in counter.h.
inline std::uint64_t read_cntvct() {
  return emberline::read_cntvct();
}

// The counter in whole microseconds, the unit of the DSP's records.
inline std::uint64_t cntvct_to_us(std::uint64_t ticks) {
  // 19.2 ticks per microsecond = 96 / 5.
  return ticks / 96 * 5 + ticks % 96 * 5 / 96;
}

}  // namespace emberline::platform
