#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/counter/cntvct.h"

namespace emberline::platform {
namespace {

TEST(Counter, MonotonicTimeInTicksRoundsDown) {
  constexpr std::int64_t kTenYears = 10ll * 365 * 24 * 3600;
  const struct {
    std::timespec time;
    std::uint64_t ticks;
  } cases[] = {
      // clang-format off
      // 52 ns are 0.998 ticks, 53 ns 1.018.
      {{0, 0}, 0}, {{0, 52}, 0}, {{0, 53}, 1}, {{0, 625}, 12}, {{0, 999'999'999}, 19'199'999},
      {{1, 0}, 19'200'000}, {{7, 250'000'000}, 139'200'000},
      {{kTenYears, 500'000'000}, 6'054'912'009'600'000},
      // clang-format on
  };
  for (const auto& c : cases) {
    EXPECT_EQ(cntvct_from_timespec(c.time), c.ticks) << c.time.tv_sec << " s " << c.time.tv_nsec;
  }
}

TEST(Counter, TicksBecomeWholeMicrosecondsWithoutOverflow) {
  // 19.2 ticks a microsecond; the last is the largest count, which no product may overflow.
  // clang-format off
  const std::uint64_t cases[][2] = {{0, 0}, {19, 0}, {20, 1}, {95, 4}, {96, 5},
                                    {19'200'000, 1'000'000}, {~0ull, 960'767'920'505'705'813}};
  // clang-format on
  for (const auto& [ticks, us] : cases) EXPECT_EQ(cntvct_to_us(ticks), us) << ticks;
}

// Both counters must run forwards at their stated rate, measured against CLOCK_MONOTONIC. Each
// reading is bracketed by two clock readings, so the allowance covers no scheduling delay, only a
// register whose rate differs slightly from the clock's (NTP slews the clock by up to 500 ppm).
TEST(Counter, RunsForwardAtItsStatedRate) {
  const struct {
    const char* name;
    std::uint64_t (*read)();
    std::uint64_t frequency;
  } counters[] = {
      {"stand-in", monotonic_cntvct, kCntvctFrequency},
      {"read_cntvct", read_cntvct, read_cntfrq()},
  };
  const auto clock_ns = [] {
    std::timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
  };
  for (const auto& counter : counters) {
    SCOPED_TRACE(counter.name);
    ASSERT_GT(counter.frequency, 0u);
    std::uint64_t last = counter.read();
    for (int i = 0; i < 10'000; ++i) {
      std::uint64_t now = counter.read();
      ASSERT_GE(now, last);
      last = now;
    }
    const double before_start = clock_ns(), start = static_cast<double>(counter.read()),
                 after_start = clock_ns();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const double before_end = clock_ns(), end = static_cast<double>(counter.read()),
                 after_end = clock_ns();
    const double ticks_per_ns = static_cast<double>(counter.frequency) / 1e9;
    EXPECT_GE(end - start, (before_end - after_start) * ticks_per_ns * 0.999 - 2);
    EXPECT_LE(end - start, (after_end - before_start) * ticks_per_ns * 1.001 + 2);
  }
}

}  // namespace
}  // namespace emberline::platform
