#pragma once

// The arm64 virtual counter, cntvct_el0: the time base the DSP stamps its trace records with.

#include <cstdint>
#include <ctime>

namespace emberline {

// The counter's rate on a headset.
inline constexpr std::uint64_t kCntvctFrequency = 19'200'000;

// The counter now: the register itself on arm64, elsewhere monotonic_cntvct().
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

}  // namespace emberline
