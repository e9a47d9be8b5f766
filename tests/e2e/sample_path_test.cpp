// The sample path of the power plugins, in-process against the simulated supply files: every
// reading is fresh, and many ticks neither allocate nor open anything.

#include <gtest/gtest.h>
#include <malloc.h>

#include "harness.h"
#include "plugins/power_plugin.h"
#include "support/heap_counter.h"

namespace {

using emberline::PowerPath;

// Readings that vary through small windows: a ring of the wrong size, a wrong divisor or a
// filter that weighs the wrong side all change these figures. The node is rewritten in place, as
// the kernel does; a stream that serves its old buffer fails by the second or third reading.
// Past the readings, thousands of ticks, more than the largest window so that the ring's growth
// is covered too, must neither allocate nor open anything.
TEST(SamplePath, SmoothingFollowsEachReadingWithoutAllocating) {
  const std::vector<std::string> readings{"1000000", "2000000",  "3000000",
                                          "4000000", "10000000", "500000"};
  const struct {
    unsigned window;  // none for exponential smoothing
    float alpha;
    std::string smooth;  // the fields behind raw, current and voltage, at each reading
  } cases[] = {
      {1, 0, " 1.000,0.000 2.000,0.000 3.000,0.000 4.000,0.000 10.000,0.000 0.500,0.000"},
      {3, 0, " 1.000,0.000 1.500,0.500 2.000,0.816 3.000,0.816 5.667,3.091 4.833,3.923"},
      {4, 0, " 1.000,0.000 1.500,0.500 2.000,0.816 2.500,1.118 4.750,3.112 4.375,3.489"},
      {1000, 0, " 1.000,0.000 1.500,0.500 2.000,0.816 2.500,1.118 4.000,3.162 3.417,3.168"},
      {0, 0.5f, " 1.000 1.500 2.250 3.125 6.562 3.531"},
      {0, 0.25f, " 1.000 1.250 1.688 2.266 4.199 3.274"},
  };
  e2e::write_file("/sys/class/power_supply/battery/voltage_now", "1000000\n");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.smooth);
    std::unique_ptr<emberline::Plugin> plugin;
    if (c.window) {
      plugin = std::make_unique<emberline::PowerWindowPlugin>(PowerPath::BATTERY, c.window, false);
    } else {
      plugin =
          std::make_unique<emberline::PowerExpSmoothPlugin>(PowerPath::BATTERY, c.alpha, false);
    }
    ASSERT_TRUE(plugin->init());
    std::string smooth;
    for (std::size_t i = 0; i < readings.size(); ++i) {
      e2e::write_file("/sys/class/power_supply/battery/current_now", readings[i] + "\n");
      // Sample and output ticks alike feed the smoothing.
      i % 2 == 0 ? plugin->on_sample() : plugin->on_output();
      const std::string amps = emberline::detail::fixed_point(std::stof(readings[i]) / 1e6f, 3);
      const std::string fields = amps + "," + amps + ",1.000,", csv = plugin->to_csv();
      EXPECT_EQ(csv.substr(0, fields.size()), fields) << "reading " << i;
      smooth += " " + csv.substr(fields.size());
    }
    EXPECT_EQ(smooth, c.smooth);
    const int descriptors = heap_counter::open_descriptors();
    const long news = heap_counter::allocations.load();
    const auto heap = mallinfo2().uordblks;
    for (int tick = 0; tick < 5000; ++tick) {
      plugin->on_sample();
      plugin->on_output();
    }
    EXPECT_EQ(heap_counter::allocations.load() - news, 0);
    if (heap_counter::kReliable) {
      EXPECT_EQ(mallinfo2().uordblks, heap);
    }
    EXPECT_EQ(heap_counter::open_descriptors(), descriptors);
  }
}

}  // namespace
