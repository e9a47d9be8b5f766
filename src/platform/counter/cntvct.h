#pragma once

// The arm64 virtual counter, cntvct_el0: the time base the DSP stamps its trace records with. On
// arm64 it is the register itself; elsewhere a count at the same rate derived from
// CLOCK_MONOTONIC, which is what a simulated DSP stamps its records with too.

#include <cstdint>
#include <ctime>
#include <numeric>

namespace emberline::platform {

// The counter's rate on a headset, 19.2 MHz; every other figure of it follows from this one.
inline constexpr std::uint64_t kCntvctFrequency = 19'200'000;

inline constexpr double kCntvctTicksPerNs = static_cast<double>(kCntvctFrequency) / 1e9;

// The counter now: the register itself on arm64, elsewhere monotonic_cntvct(). Which of the two
// the build chooses, by the source file it compiles.
std::uint64_t read_cntvct();

// The rate read_cntvct() runs at: on arm64 the register's own CNTFRQ_EL0 (kCntvctFrequency on a
// headset, whatever an emulator chooses elsewhere), otherwise kCntvctFrequency.
std::uint64_t read_cntfrq();

// The stand-in for the register: CLOCK_MONOTONIC counted at kCntvctFrequency.
std::uint64_t monotonic_cntvct();

// A time in counter ticks, rounded down. Exact for any time a clock gives: tv_nsec stays below
// 10^9, so the product cannot overflow.
constexpr std::uint64_t cntvct_from_timespec(const std::timespec& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * kCntvctFrequency +
         static_cast<std::uint64_t>(time.tv_nsec) * kCntvctFrequency / 1'000'000'000;
}

// The counter in whole microseconds, the unit of the DSP's records, rounded down. Ticks per
// microsecond as a fraction in lowest terms, so that no product overflows 64 bits.
constexpr std::uint64_t cntvct_to_us(std::uint64_t ticks) {
  constexpr std::uint64_t kCommon = std::gcd(kCntvctFrequency, std::uint64_t{1'000'000});
  constexpr std::uint64_t kTicks = kCntvctFrequency / kCommon;
  constexpr std::uint64_t kMicroseconds = 1'000'000 / kCommon;
  return ticks / kTicks * kMicroseconds + ticks % kTicks * kMicroseconds / kTicks;
}

}  // namespace emberline::platform
