// The sample path of the power plugins, in-process against the simulated supply files: every
// reading is fresh, and many ticks neither allocate nor open anything.

#include <gtest/gtest.h>
#include <malloc.h>

#include <functional>

#include "harness.h"
#include "plugins/power_plugin.h"
#include "support/heap_counter.h"

namespace {

constexpr auto kBattery = emberline::PowerPath::BATTERY;

using heap_counter::allocations;
using heap_counter::open_descriptors;

TEST(SamplePath, PowerPluginsNeitherAllocateNorOpen) {
  e2e::write_file("/sys/class/power_supply/battery/current_now", "1500000\n");
  e2e::write_file("/sys/class/power_supply/battery/voltage_now", "4000000\n");
  std::unique_ptr<emberline::Plugin> plugins[] = {
      std::make_unique<emberline::PowerWindowPlugin>(emberline::PowerPath::BATTERY, 1000, false),
      std::make_unique<emberline::PowerExpSmoothPlugin>(emberline::PowerPath::BATTERY, 0.2f, false),
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
    if (heap_counter::kReliable) {
      EXPECT_EQ(mallinfo2().uordblks, heap);
    }
    EXPECT_EQ(open_descriptors(), descriptors);
  }
}

// Readings that vary through small windows: a ring of the wrong size, a wrong divisor or a
// filter that weighs the wrong side all change these figures. The node is rewritten in place, as
// the kernel does; a stream that serves its old buffer fails by the second or third reading.
TEST(SamplePath, SmoothingFollowsEachReading) {
  const std::vector<std::string> readings{"1000000", "2000000",  "3000000",
                                          "4000000", "10000000", "500000"};
  const struct {
    const char* what;
    std::function<std::unique_ptr<emberline::Plugin>()> make;
    std::vector<std::string> smooth;  // the fields behind raw, current and voltage
  } cases[] = {
      {"window 1",
       [] { return std::make_unique<emberline::PowerWindowPlugin>(kBattery, 1, false); },
       {"1.000,0.000", "2.000,0.000", "3.000,0.000", "4.000,0.000", "10.000,0.000", "0.500,0.000"}},
      {"window 3",
       [] { return std::make_unique<emberline::PowerWindowPlugin>(kBattery, 3, false); },
       {"1.000,0.000", "1.500,0.500", "2.000,0.816", "3.000,0.816", "5.667,3.091", "4.833,3.923"}},
      {"window 4",
       [] { return std::make_unique<emberline::PowerWindowPlugin>(kBattery, 4, false); },
       {"1.000,0.000", "1.500,0.500", "2.000,0.816", "2.500,1.118", "4.750,3.112", "4.375,3.489"}},
      {"alpha 0.5",
       [] { return std::make_unique<emberline::PowerExpSmoothPlugin>(kBattery, 0.5f, false); },
       {"1.000", "1.500", "2.250", "3.125", "6.562", "3.531"}},
      {"alpha 0.25",
       [] { return std::make_unique<emberline::PowerExpSmoothPlugin>(kBattery, 0.25f, false); },
       {"1.000", "1.250", "1.688", "2.266", "4.199", "3.274"}},
  };
  e2e::write_file("/sys/class/power_supply/battery/voltage_now", "1000000\n");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto plugin = c.make();
    ASSERT_TRUE(plugin->init());
    for (std::size_t i = 0; i < readings.size(); ++i) {
      e2e::write_file("/sys/class/power_supply/battery/current_now", readings[i] + "\n");
      // Sample and output ticks alike feed the smoothing.
      i % 2 == 0 ? plugin->on_sample() : plugin->on_output();
      const std::string amps = emberline::detail::fixed_point(std::stof(readings[i]) / 1e6f, 3);
      EXPECT_EQ(plugin->to_csv(), amps + "," + amps + ",1.000," + c.smooth[i]) << "reading " << i;
    }
  }
}

}  // namespace
