// Conversions and statistics of the rail and DRAM plugins, on text in-process.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "plugins/power_rails_plugin.h"
#include "plugins/quillon_dram_bandwidth_plugin.h"
#include "plugins/quillon_power_rails_plugin.h"

namespace emberline {
namespace {

TEST(RailReadings, FactorsAndMicrowattsBecomeWatts) {
  EXPECT_FLOAT_EQ(rail_watts(3800000, 500000), 1.9f);
  EXPECT_FLOAT_EQ(rail_watts(1000000, 2000000), 2.0f);
  EXPECT_FLOAT_EQ(rail_watts(-1000000, 250000), -0.25f);

  // Quotients of the same rounding as the literals, so exact.
  // clang-format off
  for (auto [line, watts] : std::vector<std::pair<std::string, std::optional<float>>>{
           {"1500000", 1.5f}, {"250", 0.00025f}, {"12e5", 1.2f},
           {"", {}}, {"n/a", {}}, {"1e99", {}}}) {
    EXPECT_EQ(microwatts_to_watts(line), watts) << line;
  }
  // clang-format on
}

TEST(DramSamples, MalformedLinesAreSkipped) {
  struct Case {
    std::string text;
    std::vector<dram::Sample> expected;
  } cases[] = {
      // clang-format off
      {"1\t100\t200\t30\n", {{1, 0x100, 0x200, 0x30}}}, {"a\tB\tc\tD", {{0xa, 0xb, 0xc, 0xd}}},
      // Runs of tabs are one separator, a fifth column is ignored, a CR ends a number.
      {"1\t\t2\t3\t4\t5\r\n", {{1, 2, 3, 4}}}, {"0x10\t 20\t30\t40\n", {{0x10, 0x20, 0x30, 0x40}}},
      {"1\t2\t3\n\n\n4\t5\t6\t7\n", {{4, 5, 6, 7}}}, {"zz\t1\t2\t3\n1\t2\t3\t4\n", {{1, 2, 3, 4}}},
      {"1 2 3 4\n", {}}, {"", {}}, {"ffffffffffffffffff\t1\t2\t3\n", {}},
      // clang-format on
  };
  for (const auto& c : cases) {
    std::vector<dram::Sample> samples;
    dram::parse_samples(c.text, samples);
    EXPECT_EQ(samples, c.expected) << c.text;
  }
}

dram::Sample used(unsigned long used, unsigned long available = 100, unsigned long ddr = 0) {
  return {0, used, available, ddr};
}

// The client lists divide signed, the total unsigned: only sums past 2^31 tell them apart. Either
// divides whole numbers, and all sums keep the low 32 bits only.
TEST(DramStatistics, WorkedSamples) {
  constexpr float kInf = std::numeric_limits<float>::infinity(),
                  kNan = std::numeric_limits<float>::quiet_NaN();
  struct Case {
    const char* name;
    std::vector<dram::Sample> samples;
    std::uint32_t mean, minimum, maximum, available;
    double stddev;
    float utilisation;
    std::uint32_t total_mean_and_available = 0;  // where the total's differ
    std::array<std::uint32_t, 3> ddr = {};       // the total's mean, minimum and maximum
  } cases[] = {
      // clang-format off
      {"one sample", {used(0x100, 0x200)}, 256, 256, 256, 512, 0.0, 0.5f},
      {"10 and 20", {used(10), used(20)}, 15, 10, 20, 100, 5.0, 0.15f},
      {"mean truncates", {used(10), used(11)}, 10, 10, 11, 100, std::sqrt(0.5), 0.10f},
      {"population form", {used(2), used(4), used(4), used(4), used(5), used(5), used(7), used(9)},
       5, 2, 9, 100, 2.0, 0.05f},
      {"low 32 bits only", {used(0x100000005, 0x100000064)}, 5, 5, 5, 100, 0.0, 0.05f},
      {"sums and squares wrap", {used(0xffffffff), used(3)}, 1, 3, 0xffffffff, 100, 2.0, 0.01f},
      {"signed", {used(0x90000000, 0x90000000), used(0, 0)}, 0xC8000000, 0, 0x90000000, 0xC8000000,
       0.0, 1.0f, 0x48000000},
      {"ddr", {used(1, 2, 1555), used(1, 2, 547), used(1, 2, 3196)}, 1, 1, 1, 2, 0.0, 0.5f, 0,
       {1766, 547, 3196}},
      {"nothing available", {used(5, 0)}, 5, 5, 5, 0, 0.0, kInf},
      {"nothing at all", {used(0, 0)}, 0, 0, 0, 0, 0.0, kNan},
      {"no samples", {}, 0, 0, 0, 0, 0.0, 0.0f},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (bool total : {false, true}) {
      auto stats = total ? dram::total_stats(c.samples) : dram::client_stats(c.samples);
      const auto mean = total && c.total_mean_and_available ? c.total_mean_and_available : c.mean;
      EXPECT_EQ(stats.samples, c.samples.size());
      EXPECT_EQ(stats.mean, mean);
      EXPECT_EQ(stats.minimum, c.minimum);
      EXPECT_EQ(stats.maximum, c.maximum);
      EXPECT_EQ(stats.available, c.total_mean_and_available ? mean : c.available);
      EXPECT_DOUBLE_EQ(stats.stddev, c.stddev);
      EXPECT_TRUE(std::isnan(c.utilisation) ? std::isnan(stats.utilisation)
                                            : stats.utilisation == c.utilisation)
          << stats.utilisation;
      if (total) {
        EXPECT_EQ((std::array{stats.ddr_mean, stats.ddr_minimum, stats.ddr_maximum}), c.ddr);
      }
    }
  }
}

}  // namespace
}  // namespace emberline
