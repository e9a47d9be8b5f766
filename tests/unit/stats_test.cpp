// The stats plugin in-process: its parsers on text, its topology and tree on a cpufreq directory
// of our own, both utilisation methods on crafted counters, the GPU readers on a fake reader.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "plugins/stats_plugin.h"

namespace emberline {
namespace {

namespace fs = std::filesystem;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

// A cpufreq directory: policy<first>/affected_cpus per cluster, and optionally time_in_state.
class CpufreqDir {
 public:
  CpufreqDir() {
    std::string pattern = (fs::temp_directory_path() / "stats-test.XXXXXX").string();
    path = mkdtemp(pattern.data());
  }
  ~CpufreqDir() { fs::remove_all(path); }
  void write(const std::string& relative, const std::string& text) const {
    fs::create_directories(fs::path(path + "/" + relative).parent_path());
    std::ofstream(path + "/" + relative) << text;
  }
  std::string path;
};

// Opens up the plugin's steps and tables to the tests.
class Stats : public StatsPlugin {
 public:
  Stats(bool cycle, const std::string& dir) : StatsPlugin(cycle, dir) {}
  using StatsPlugin::account_proc_stat;
  using StatsPlugin::clusters;
  using StatsPlugin::cycle_stats;
  using StatsPlugin::cycle_util_available;
  using StatsPlugin::freq_table;
  using StatsPlugin::num_clusters;
  using StatsPlugin::num_cores;
  using StatsPlugin::time_stats;
  using StatsPlugin::update_cpu_stats_by_cpu_cycles;
};

// Floats compared bit for bit, not-a-number equal to itself.
void expect_same(const std::vector<float>& actual, const std::vector<float>& expected,
                 const std::string& what) {
  ASSERT_EQ(actual.size(), expected.size()) << what;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (std::isnan(expected[i])) {
      EXPECT_TRUE(std::isnan(actual[i])) << what << "[" << i << "] = " << actual[i];
    } else {
      EXPECT_EQ(actual[i], expected[i]) << what << "[" << i << "]";
    }
  }
}

TEST(StatsParsers, FirstWordSplitsAtTheFirstBlankAndSkipsToTheNextDigit) {
  struct Case {
    std::string line, word, rest;
  } cases[] = {
      {"cpu0 12 34", "cpu0", "12 34"},
      {"cpu  12 34", "cpu", "12 34"},
      {"34", "34", ""},
      {"", "", ""},
      {"intr x 5", "intr", "5"},
      {"a b", "a", "b"},
      {"cpu0\t12 34", "cpu0\t12", "34"},  // a tab is no separator
      {" 12 34", "12 34", ""},            // an empty first word takes the whole rest
      {"12 ", "12", ""},
  };
  for (const auto& c : cases) {
    std::string line = c.line;
    EXPECT_EQ(get_first_word(line), c.word) << c.line;
    EXPECT_EQ(line, c.rest) << c.line;
  }
}

TEST(StatsParsers, CpuStatReadsEveryNumberAndLeavesOutWordsWithout) {
  using V = std::vector<unsigned long>;
  const std::pair<std::string, V> cases[] = {
      {"47 15 11 162 52 0 3 0 0 0", {47, 15, 11, 162, 52, 0, 3, 0, 0, 0}},
      {"", {}},
      {"12  34", {12, 34}},
      {"12 x 34", {12, 34}},
      {"12 34 abc", {12, 34}},
      {"abc", {}},
      {"7abc 8", {7, 8}},
      {"18446744073709551615 1", {18446744073709551615ul, 1}},
      {"18446744073709551616 1", {1}},  // past 64 bits
  };
  for (const auto& [text, numbers] : cases) {
    std::string line = text;
    EXPECT_EQ(get_cpu_stat(line), numbers) << text;
    EXPECT_EQ(line, "");
  }
}

TEST(StatsParsers, AffectedCpusGiveFirstAndLastCore) {
  using P = std::optional<std::pair<int, int>>;
  const std::pair<std::string, P> cases[] = {
      {"0 1 2 3\n", P({0, 3})}, {"4 5 7", P({4, 7})},      {"7\n", P({7, 7})},
      {"0 2 3", P({0, 3})},     {"0 1 2 3 \n", P({0, 3})}, {"", std::nullopt},
      {"\n", std::nullopt},     {"3 1", std::nullopt},     {"x", std::nullopt},
      {"-1 2", std::nullopt},   {"0 99999", std::nullopt},
  };
  for (const auto& [line, cluster] : cases) EXPECT_EQ(parse_affected_cpus(line), cluster) << line;
}

TEST(StatsTopology, PoliciesInAnyOrderGiveSortedClustersAndAStrayDirOneLine) {
  for (bool reversed : {false, true}) {
    CpufreqDir dir;
    // Created in both orders, so that the listing does not hand them over sorted by luck.
    const std::vector<std::pair<std::string, std::string>> policies{
        {"policy4", "4 5 6 7\n"}, {"policy0", "0 1 2 3\n"}, {"policy9", "\n"}};
    for (std::size_t i = 0; i < policies.size(); ++i) {
      const auto& [name, cpus] = policies[reversed ? policies.size() - 1 - i : i];
      dir.write(name + "/affected_cpus", cpus);
    }
    dir.write("schedutil/tunable", "1\n");
    dir.write("stray_file", "0 1\n");
    testing::internal::CaptureStderr();
    Stats stats(false, dir.path);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Failed to open " + dir.path + "/schedutil/affected_cpus\n");
    EXPECT_EQ(stats.clusters, (std::vector<std::pair<int, int>>{{0, 3}, {4, 7}}));
    EXPECT_EQ(stats.num_cores, 8);
    EXPECT_EQ(stats.num_clusters, 2);
  }
}

// Name column and description of every schema row, in order.
std::vector<std::string> schema(const Stats& stats, OutputFormat format) {
  std::vector<std::string> rows;
  std::istringstream text(stats.get_description(format));
  for (std::string line; std::getline(text, line);) {
    const std::size_t colon = line.find(":  ");
    std::string name = line.substr(0, colon);
    name.erase(name.find_last_not_of(' ') + 1);
    const std::string description = line.substr(colon + 3);
    rows.push_back(name + "|" + description.substr(description.find_first_not_of(' ')));
  }
  return {rows.begin() + 2, rows.end()};  // past the heading
}

TEST(StatsTree, KeysLabelsAndDescriptionsWithAndWithoutCycles) {
  CpufreqDir dir;
  dir.write("policy0/affected_cpus", "0 1\n");
  dir.write("policy2/affected_cpus", "2\n");
  dir.write("policy0/stats/time_in_state", "300000 5 1 1 2 3 4 5\n");
  dir.write("policy2/stats/time_in_state", "700000 5 1 1 2 3\n");
  const std::string cl = "Info about CPU cluster containing cores ";
  const std::string freq = "Frequency (in Gigahertz) for all cores in this cluster";
  const std::string avg = "Average utilization across all cores in this cluster";
  const std::string max = "Max utilization across all cores in this cluster";
  auto cluster = [&](std::string key, std::string label, std::string cores) {
    return std::vector<std::string>{key + "|" + cl + cores, label + "|" + cl + cores,
                                    "freq|" + freq,         "freq|" + freq,
                                    "avg_util|" + avg,      "avg|" + avg,
                                    "max_util|" + max,      "max|" + max};
  };
  struct Case {
    bool cycle;
    std::vector<std::string> keys_and_labels;  // key row, then label row, of each field
  } cases[] = {
      {false,
       {"cpu|Per-core utilization", "CPU|Per-core utilization",
        "cpu_time0|cpu_time0 utilization percentage", "0|cpu_time0 utilization percentage",
        "cpu_time1|cpu_time1 utilization percentage", "1|cpu_time1 utilization percentage",
        "cpu_time2|cpu_time2 utilization percentage", "2|cpu_time2 utilization percentage"}},
      {true,
       {"cpu|Per-core time based utilization", "CPU (time)|Per-core time based utilization",
        "cpu_time0|cpu_time0 utilization percentage", "0|cpu_time0 utilization percentage",
        "cpu_time1|cpu_time1 utilization percentage", "1|cpu_time1 utilization percentage",
        "cpu_time2|cpu_time2 utilization percentage", "2|cpu_time2 utilization percentage"}},
  };
  for (const auto& c : cases) {
    Stats stats(c.cycle, dir.path);
    ASSERT_EQ(stats.cycle_util_available, c.cycle);
    std::vector<std::string> expected{"screen_on|Whether or not the screen is turned on",
                                      "screen|Whether or not the screen is turned on",
                                      "battery_level|Current battery charge level",
                                      "bat|Current battery charge level"};
    expected.insert(expected.end(), c.keys_and_labels.begin(), c.keys_and_labels.end());
    const std::string t = c.cycle ? "_time" : "", tl = c.cycle ? " (time)" : "";
    for (auto rows : {cluster("cpu" + t + "0-1", "CPU0-1" + tl, "0-1"),
                      cluster("cpu" + t + "2", "CPU2" + tl, "2")}) {
      expected.insert(expected.end(), rows.begin(), rows.end());
    }
    if (c.cycle) {
      expected.insert(
          expected.end(),
          {"cpu_cycl|Per-core cycl based utilization", "CPU (cycl)|Per-core cycl based utilization",
           "cpu_cycl0|cpu_cycl0 utilization percentage", "0|cpu_cycl0 utilization percentage",
           "cpu_cycl1|cpu_cycl1 utilization percentage", "1|cpu_cycl1 utilization percentage",
           "cpu_cycl2|cpu_cycl2 utilization percentage", "2|cpu_cycl2 utilization percentage"});
      for (auto rows : {cluster("cpu_cycl0-1", "CPU0-1 (cycl)", "0-1"),
                        cluster("cpu_cycl2", "CPU2 (cycl)", "2")}) {
        expected.insert(expected.end(), rows.begin(), rows.end());
      }
    }
    expected.insert(expected.end(),
                    {"gpu|Info about GPU", "GPU|Info about GPU",
                     "freq|GPU frequency (in Gigahertz)", "freq|GPU frequency (in Gigahertz)",
                     "util|GPU utilization percentage", "util|GPU utilization percentage"});
    // Interleave the key and label forms row by row, as the expectation is written.
    auto keys = schema(stats, OutputFormat::JSON), labels = schema(stats, OutputFormat::TEXT);
    ASSERT_EQ(keys.size(), labels.size());
    std::vector<std::string> actual;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      actual.push_back(keys[i].substr(keys[i].find_first_not_of(' ')));
      actual.push_back(labels[i].substr(labels[i].find_first_not_of(' ')));
    }
    EXPECT_EQ(actual, expected) << (c.cycle ? "with cycles" : "without");
    // Nothing has a reading before the first output.
    EXPECT_EQ(stats.to_csv().find_first_not_of("nul,"), std::string::npos) << stats.to_csv();
  }
}

TEST(StatsTree, CycleCheckNeedsTheExtendedFormatOfEveryCluster) {
  // time_in_state of the second cluster, and what the run ends up with.
  struct Case {
    std::optional<std::string> second;
    bool available;
    std::string err;
  } cases[] = {
      {"300000 5 1 1 2 3\n250 5 1 1 2 3\n", true, ""},
      {"300000 5\n", false, ""},  // the kernel's plain format
      {std::nullopt, false, "Failed to open <dir>/policy1/stats/time_in_state\n"},
      {"", false, ""},
  };
  for (const auto& c : cases) {
    CpufreqDir dir;
    dir.write("policy0/affected_cpus", "0\n");
    dir.write("policy1/affected_cpus", "1\n");
    dir.write("policy0/stats/time_in_state", "100000 5 1 1 2 3\n");
    if (c.second) dir.write("policy1/stats/time_in_state", *c.second);
    testing::internal::CaptureStderr();
    Stats stats(true, dir.path);
    std::string err = c.err;
    if (err.find("<dir>") != std::string::npos) err.replace(err.find("<dir>"), 5, dir.path);
    if (!c.available) err += "WARNING: stats: cycle based util is not available on this machine.\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), err);
    EXPECT_EQ(stats.cycle_util_available, c.available);
    if (c.available) {
      // Weights are the frequency over the tick rate, in whole numbers.
      EXPECT_EQ(stats.freq_table, (std::vector<std::vector<unsigned long>>{{1000}, {3000, 2}}));
    }
  }
}

// The time-based method over successive /proc/stat texts: cores 0-1 and 2-3.
TEST(StatsTimeMethod, CoresAndClustersFollowTheTicksBetweenPasses) {
  CpufreqDir dir;
  dir.write("policy0/affected_cpus", "0 1\n");
  dir.write("policy2/affected_cpus", "2 3\n");
  Stats stats(false, dir.path);
  struct Pass {
    std::string text;
    std::vector<float> cores, avg, max;
  } passes[] = {
      // From zero: since boot. Core 2 is offline: 0, and its cluster still divides by two.
      {"cpu  40 0 10 130 60 0 0 0 0 0\n"
       "cpu0 10 0 10 70 10 0 0 0 0 0\n"
       "cpu1 0 0 0 50 50 0 0 0 0 0\n"
       "intr 1 2 3\nctxt 99\nbtime 1\n"
       "cpu3 4294967290 0 0 4294967290 0 0 0 0 0 0\n"
       "cpu9 1 1 1 1 1 1 1 1 1 1\n",
       // Core 3's sums wrap at 32 bits and divide as signed numbers: -6 / -12.
       {1.0f - 80.0f / 100.0f, 1.0f - 100.0f / 100.0f, 0.0f, 0.5f},
       {(0.0f + (1.0f - 80.0f / 100.0f) + 0.0f) / 2.0f, (0.0f + 0.5f) / 2.0f},
       {1.0f - 80.0f / 100.0f, 0.5f}},
      // Core 0 without a tick: not a number, in its average too but not in the maximum. Core 3's
      // 32-bit counters wrapped past zero; every column counts in the total. A short row is
      // padded with zeros.
      {"cpu0 10 0 10 70 10 0 0 0 0 0\n"
       "cpu1 1 0 0 53 50 0 0 0 0 1\n"
       "cpu2 5 0 0 5\n"
       "cpu3 6 0 0 4294967300 0 0 0 0 0 0\n",
       {kNan, 1.0f - 3.0f / 5.0f, 1.0f - 5.0f / 10.0f, 1.0f - 10.0f / 22.0f},
       {kNan, ((0.0f + (1.0f - 5.0f / 10.0f)) + (1.0f - 10.0f / 22.0f)) / 2.0f},
       {1.0f - 3.0f / 5.0f, 1.0f - 10.0f / 22.0f}},
  };
  for (const auto& p : passes) {
    stats.account_proc_stat(p.text);
    expect_same(stats.time_stats.core_util, p.cores, "core_util");
    expect_same(stats.time_stats.cluster_avg_util, p.avg, "cluster_avg_util");
    expect_same(stats.time_stats.cluster_max_util, p.max, "cluster_max_util");
  }
}

// The cycle-based method on one cluster of two cores, frequency rows weighing 10 and 20.
TEST(StatsCycleMethod, WeighsEachRowByItsFrequencyAndAveragesClusterSums) {
  CpufreqDir dir;
  dir.write("policy0/affected_cpus", "0 1\n");
  const std::string tis = "policy0/stats/time_in_state";
  dir.write(tis, "1000 100 0 0 50 50 50 50\n2000 100 0 0 50 50 50 50\n");
  Stats stats(true, dir.path);
  ASSERT_TRUE(stats.cycle_util_available);
  ASSERT_TRUE(stats.update_cpu_stats_by_cpu_cycles());
  expect_same(stats.cycle_stats.core_util, {0, 0}, "warm-up");
  struct Pass {
    std::string text;
    std::vector<float> cores, avg, max;
  } passes[] = {
      // Core 0: busy 5*10 + 1*20, idle 5*10 + 9*20. Core 1: 3 busy and 3 idle of 10 in the
      // first row leave 4 * 10 as other, which counts as used. The cluster: 1 - 360 / 600.
      {"1000 110 0 0 55 55 53 53\n2000 110 0 0 51 59 55 55\n",
       {static_cast<float>(1.0 - 230.0 / 300.0), static_cast<float>(1.0 - 130.0 / 300.0)},
       {static_cast<float>(1.0 - 360.0 / 600.0)},
       {static_cast<float>(1.0 - 130.0 / 300.0)}},
      // Total time moved, idle did not: 1.0, whatever busy did.
      {"1000 120 0 0 60 55 53 53\n2000 110 0 0 51 59 55 55\n", {1.0f, 1.0f}, {1.0f}, {1.0f}},
      // Nothing moved: not a number, which the maximum passes over.
      {"1000 120 0 0 60 55 53 53\n2000 110 0 0 51 59 55 55\n", {kNan, kNan}, {kNan}, {0.0f}},
  };
  for (const auto& p : passes) {
    dir.write(tis, p.text);
    ASSERT_TRUE(stats.update_cpu_stats_by_cpu_cycles());
    expect_same(stats.cycle_stats.core_util, p.cores, "core_util");
    expect_same(stats.cycle_stats.cluster_avg_util, p.avg, "cluster_avg_util");
    expect_same(stats.cycle_stats.cluster_max_util, p.max, "cluster_max_util");
  }
  // A row gained since start-up has no weight and is passed over; a short row fails the pass.
  dir.write(tis, "1000 130 0 0 60 65 53 53\n2000 110 0 0 51 59 55 55\n3000 1 0 0 1 1 1 1\n");
  ASSERT_TRUE(stats.update_cpu_stats_by_cpu_cycles());
  expect_same(stats.cycle_stats.core_util, {0.0f, 1.0f}, "gained row");
  dir.write(tis, "1000 140 0 0 60 65 53\n2000 110 0 0 51 59 55 55\n");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(stats.update_cpu_stats_by_cpu_cycles());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed update busy and idle time\n");
}

// Files by path; a missing path does not exist.
class FakeReader : public FileReader {
 public:
  std::string ReadFile(std::string path) override {
    auto it = files.find(path);
    return it == files.end() ? "" : it->second;
  }
  bool Exists(std::string path) override { return files.count(path) != 0; }
  std::map<std::string, std::string> files;
};

TEST(StatsGpu, UtilizationPrefersTheAccumulatingCountersAndFreqIsMegahertz) {
  const std::string accum = "/sys/class/kgsl/kgsl-3d0/gpubusy_accum";
  const std::string busy = "/sys/class/kgsl/kgsl-3d0/gpubusy";
  const std::string clock = "/sys/class/kgsl/kgsl-3d0/clock_mhz";
  auto saved = file_reader;
  auto fake = std::make_shared<FakeReader>();
  file_reader = fake;
  struct Call {
    std::map<std::string, std::string> files;
    std::optional<float> util, freq;
  };
  const std::vector<std::vector<Call>> runs{
      {{{{accum, "50 200"}, {busy, "1 2"}, {clock, "525\n"}}, 0.25f, 0.525f},
       {{{accum, "100 400"}, {busy, "1 2"}, {clock, "0"}}, 0.25f, 0.0f},
       {{{accum, "100 400"}, {busy, "1 2"}, {clock, "abc"}}, std::nullopt, 0.0f},  // 0 / 0
       {{{accum, "110 400"}}, std::numeric_limits<float>::infinity(), std::nullopt},
       // Empty accumulating text falls through to the period counters.
       {{{accum, ""}, {busy, "   1000    4000\n"}}, 0.25f, std::nullopt}},
      // Without the accumulating file at the first call, only the period counters count.
      {{{{busy, "0 0"}}, std::nullopt, std::nullopt},
       {{{accum, "1 2"}, {busy, "3 4"}}, 0.75f, std::nullopt}},
      // Neither file at the first call: never a reading, even when they come later.
      {{{}, std::nullopt, std::nullopt}, {{{accum, "1 2"}, {busy, "3 4"}}, std::nullopt, std::nullopt}},
  };
  for (std::size_t r = 0; r < runs.size(); ++r) {
    CpufreqDir dir;
    Stats stats(false, dir.path);
    for (std::size_t i = 0; i < runs[r].size(); ++i) {
      fake->files = runs[r][i].files;
      float util = -1, freq = -1;
      const bool got_util = stats.get_gpu_utilization(util);
      const bool got_freq = stats.get_gpu_freq(freq);
      const auto& expected = runs[r][i];
      EXPECT_EQ(got_util, expected.util.has_value()) << "run " << r << " call " << i;
      if (got_util && expected.util) {
        EXPECT_EQ(util, *expected.util) << "run " << r << " call " << i;
      }
      EXPECT_EQ(got_freq, expected.freq.has_value()) << "run " << r << " call " << i;
      if (got_freq && expected.freq) {
        EXPECT_EQ(freq, *expected.freq) << "run " << r << " call " << i;
      }
    }
  }
  file_reader = saved;
}

}  // namespace
}  // namespace emberline
