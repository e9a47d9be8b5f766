// The sample path of the power plugins, in-process against the simulated supply files: many
// ticks must neither allocate nor open anything.

#include <dirent.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "harness.h"
#include "plugins/power_plugin.h"

namespace {
std::atomic<long> allocations{0};
}  // namespace

// These replace the global pair, so malloc and free do match; GCC cannot see that.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

int open_descriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kHeapStatsReliable = false;
#else
constexpr bool kHeapStatsReliable = true;
#endif

TEST(SamplePath, PowerPluginsNeitherAllocateNorOpen) {
  e2e::write_file("/sys/class/power_supply/battery/current_now", "1500000\n");
  e2e::write_file("/sys/class/power_supply/battery/voltage_now", "4000000\n");
  std::unique_ptr<emberline::Plugin> plugins[] = {
      std::make_unique<emberline::PowerWindowPlugin>(emberline::PowerPath::BATTERY, 1000, false),
      std::make_unique<emberline::PowerExpSmoothPlugin>(emberline::PowerPath::BATTERY, 0.2f,
                                                        false),
  };
  for (auto& plugin : plugins) {
    ASSERT_TRUE(plugin->init());
    const int descriptors = open_descriptors();
    const long news = allocations.load();
    const auto heap = mallinfo2().uordblks;
    // More ticks than the largest window, so the ring's growth is covered too.
    for (int tick = 0; tick < 5000; ++tick) {
      plugin->on_sample();
      plugin->on_output();
    }
    EXPECT_EQ(allocations.load() - news, 0);
    if (kHeapStatsReliable) {
      EXPECT_EQ(mallinfo2().uordblks, heap);
    }
    EXPECT_EQ(open_descriptors(), descriptors);
  }
}

TEST(SamplePath, EveryReadSeesTheNodesCurrentValue) {
  e2e::write_file("/sys/class/power_supply/battery/voltage_now", "4000000\n");
  emberline::PowerExpSmoothPlugin plugin(emberline::PowerPath::BATTERY, 1.0f, false);
  e2e::write_file("/sys/class/power_supply/battery/current_now", "1500000\n");
  ASSERT_TRUE(plugin.init());
  // Rewritten in place, as the kernel does; a stream that serves its old buffer fails by the
  // second or third read.
  for (const char* current : {"1500000", "-500000", "250000", "-1000000", "1"}) {
    e2e::write_file("/sys/class/power_supply/battery/current_now", std::string(current) + "\n");
    plugin.on_sample();
    const float amps = std::stof(current) / 1e6f;
    EXPECT_EQ(plugin.to_csv(), emberline::detail::fixed_point(amps * 4.0f, 3) + "," +
                                   emberline::detail::fixed_point(amps, 3) + ",4.000," +
                                   emberline::detail::fixed_point(amps * 4.0f, 3));
  }
}

}  // namespace
