// The stats plugin in-process: its parsers and both utilisation methods on text, its topology,
// tree and cycle check on a cpufreq directory of our own, the GPU readers on a fake reader.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>

#include "plugins/stats_plugin.h"

namespace emberline {
namespace {

namespace fs = std::filesystem;
using Row = std::vector<unsigned long>;
constexpr float kNan = -1.0f;  // stands for not-a-number, which no figure here can be

// A cpufreq directory of files given as relative path and text.
struct CpufreqDir {
  explicit CpufreqDir(const std::map<std::string, std::string>& files) {
    std::string pattern = (fs::temp_directory_path() / "stats-test.XXXXXX").string();
    path = mkdtemp(pattern.data());
    for (const auto& [name, text] : files) write(name, text);
  }
  ~CpufreqDir() { fs::remove_all(path); }
  void write(const std::string& name, const std::string& text) const {
    fs::create_directories(fs::path(path + "/" + name).parent_path());
    std::ofstream(path + "/" + name) << text;
  }
  std::string path;
};

// Opens up the plugin's steps and tables to the tests.
struct Stats : StatsPlugin {
  Stats(bool cycle, const std::string& dir) : StatsPlugin(cycle, dir) {}
  using StatsPlugin::clusters, StatsPlugin::cycle_stats, StatsPlugin::cycle_util_available,
      StatsPlugin::freq_table, StatsPlugin::update_cpu_stats_by_cpu_cycles;
};

// Per-core, cluster average and cluster maximum figures, with a not-a-number read as kNan so
// that they compare bit for bit.
using Figures = std::vector<std::vector<float>>;
Figures figures(const CpuStats& s) {
  Figures all{s.core_util, s.cluster_avg_util, s.cluster_max_util};
  for (auto& v : all)
    std::replace_if(
        v.begin(), v.end(), [](float f) { return std::isnan(f); }, kNan);
  return all;
}

TEST(StatsParsers, WordsSplitAtBlanksAndNumbersLeaveOutWordsWithoutOne) {
  // clang-format off
  // Line, first word, what the line keeps.
  for (auto [line, word, rest] : std::vector<std::array<std::string, 3>>{
           {"cpu0 12 34", "cpu0", "12 34"}, {"cpu  12 34", "cpu", "12 34"}, {"34", "34", ""},
           {"", "", ""}, {"intr x 5", "intr", "5"}, {"a b", "a", "b"},
           {"cpu0\t12 34", "cpu0\t12", "34"}, {" 12 34", "12 34", ""}, {"12 ", "12", ""}}) {
    EXPECT_EQ(get_first_word(line), word) << line;
    EXPECT_EQ(line, rest) << word;
  }
  for (auto [text, numbers] : std::vector<std::pair<std::string, Row>>{
           {"47 15 11 162 52 0 3 0 0 0", {47, 15, 11, 162, 52, 0, 3, 0, 0, 0}}, {"", {}},
           {"12  34", {12, 34}}, {"12 x 34", {12, 34}}, {"12 34 abc", {12, 34}}, {"abc", {}},
           {"7abc 8", {7, 8}}, {"18446744073709551615 1", {18446744073709551615ul, 1}},
           {"18446744073709551616 1", {1}}}) {
    EXPECT_EQ(get_cpu_stat(text), numbers) << text;
    EXPECT_EQ(text, "");
  }
  using P = std::optional<std::pair<int, int>>;
  for (auto [text, cluster] : std::vector<std::pair<std::string, P>>{
           {"0 1 2 3\n", P({0, 3})}, {"4 5 7", P({4, 7})}, {"7\n", P({7, 7})},
           {"0 1 2 3 \r\n", P({0, 3})}, {"0 1\n2 3\n", P({0, 1})}, {"\n4 5\n", {}}, {"", {}},
           {"3 1", {}}, {"x", {}}, {"-1 2", {}}, {"0 99999", {}}}) {
    EXPECT_EQ(parse_affected_cpus(text), cluster) << text;
  }
  // clang-format on
}

TEST(StatsTopology, PoliciesInAnyOrderGiveSortedClustersAndAStrayDirOneLine) {
  // Seven clusters, so that a listing that happens to come sorted (ext4 lists in hash order,
  // whatever the order of creation) is one chance in 5040.
  for (bool reversed : {false, true}) {
    CpufreqDir dir({});
    std::vector<std::pair<std::string, std::string>> policies{
        {"policy6", "6 7\n"}, {"policy0", "0\n"}, {"policy9", "\n"},  {"policy3", "3\n"},
        {"policy1", "1 2\n"}, {"policy5", "5\n"}, {"policy4", "4\n"}, {"policy8", "8 9\n"}};
    if (reversed) std::reverse(policies.begin(), policies.end());
    for (const auto& [name, cpus] : policies) dir.write(name + "/affected_cpus", cpus);
    dir.write("schedutil/tunable", "1\n");
    dir.write("stray_file", "0 1\n");
    testing::internal::CaptureStderr();
    Stats stats(false, dir.path);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Failed to open " + dir.path + "/schedutil/affected_cpus\n");
    EXPECT_EQ(stats.clusters, (std::vector<std::pair<int, int>>{
                                  {0, 0}, {1, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 7}, {8, 9}}));
    // A cluster of one core is named by that core alone.
    stats.update_tree_metadata(0, "");
    EXPECT_NE(stats._to_csv(true).find(",cpu0.freq,cpu0.avg_util,cpu0.max_util,cpu1-2.freq,"),
              std::string::npos)
        << stats._to_csv(true);
  }
}

TEST(StatsTree, CycleCheckNeedsTheExtendedFormatOfEveryCluster) {
  // The second cluster's time_in_state, none for a missing file; the error it costs, the weights
  // (the frequency over the tick rate of 100, in whole numbers) and the figures of a second pass.
  struct Case {
    std::optional<std::string> second;
    std::string err;
    std::vector<Row> weights;
    Figures figures;
  } cases[] = {
      {"300000 5 1 1 2 3\n250 5 1 1 2 3\n99 5 1 1 2 3",
       "",
       {{1000}, {3000, 2, 0}},
       {{1, kNan}, {1, kNan}, {1, 0}}},
      {"300000 5\n", "WARNING", {}, {}},  // the kernel's plain format
      {std::nullopt, "Failed to open <dir>/policy1/stats/time_in_state\nWARNING", {}, {}},
      {"\n", "WARNING", {}, {}},
      // A plain or empty row behind extended ones.
      {"300000 5 1 1 2 3\n400000 5\n", "WARNING", {}, {}},
      {"300000 5 1 1 2 3\n\n", "WARNING", {}, {}},
      // No rows at all is no plain format: the cluster's core has nothing to count.
      {"", "", {{1000}, {}}, {{1, kNan}, {1, kNan}, {1, 0}}},
  };
  for (Case& c : cases) {
    CpufreqDir dir({{"policy0/affected_cpus", "0\n"},
                    {"policy1/affected_cpus", "1\n"},
                    {"policy0/stats/time_in_state", "100000 5 1 1 2 3\n"}});
    if (c.second) dir.write("policy1/stats/time_in_state", *c.second);
    std::string& err = c.err;
    if (err.find("<dir>") != std::string::npos) err.replace(err.find("<dir>"), 5, dir.path);
    if (!err.empty()) err += ": stats: cycle based util is not available on this machine.\n";
    testing::internal::CaptureStderr();
    Stats stats(true, dir.path);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), err);
    EXPECT_EQ(stats.cycle_util_available, err.empty());
    if (!err.empty()) continue;
    // Nothing has a reading before the first output.
    EXPECT_EQ(stats.to_csv().find_first_not_of("nul,"), std::string::npos) << stats.to_csv();
    EXPECT_EQ(stats.freq_table, c.weights);
    // Between the passes core 0 is never idle while its total moves; core 1 counts nothing.
    ASSERT_TRUE(stats.update_cpu_stats_by_cpu_cycles());
    dir.write("policy0/stats/time_in_state", "100000 15 1 1 7 3\n");
    ASSERT_TRUE(stats.update_cpu_stats_by_cpu_cycles());
    EXPECT_EQ(figures(stats.cycle_stats), c.figures) << c.second.value_or("none");
    // A row that lost a column ends the report.
    dir.write("policy0/stats/time_in_state", "100000 25 1 1 7\n");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(stats.update_cpu_stats_by_cpu_cycles());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed update busy and idle time\n");
  }
}

// Successive /proc/stat texts for cores 0-1 and 2-3, and what each pass gives.
TEST(StatsTimeMethod, CoresAndClustersFollowTheTicksBetweenPasses) {
  const std::vector<std::pair<int, int>> clusters{{0, 1}, {2, 3}};
  CpuCounters prev_rows;
  CpuStats stats(2, 4);
  StatsBuffers buffers;
  const float u0 = 1.0f - 80.0f / 100.0f, u3 = 1.0f - 10.0f / 22.0f;
  for (auto [text, expected] : std::vector<std::pair<std::string, Figures>>{
           // From zero: since boot. Core 2 is offline: 0, and its cluster still divides by two.
           // Core 3's sums wrap at 32 bits and divide as signed numbers: -6 / -12.
           {"cpu  40 0 10 130 60 0 0 0 0 0\ncpu0 10 0 10 70 10 0 0 0 0 0\n"
            "cpu1 0 0 0 50 50 0 0 0 0 0\nintr 1 2 3\nctxt 99\nbtime 1\n"
            "cpu3 4294967290 0 0 4294967290 0 0 0 0 0 0\ncpu9 1 1 1 1 1 1 1 1 1 1\n",
            {{u0, 0.0f, 0.0f, 0.5f}, {(0.0f + u0 + 0.0f) / 2.0f, 0.25f}, {u0, 0.5f}}},
           // Core 0 without a tick: not a number, in its average too but not in the maximum.
           // Core 3's 32-bit counters wrapped past zero; all columns count. A short row is padded.
           {"cpu0 10 0 10 70 10 0 0 0 0 0\ncpu1 1 0 0 53 50 0 0 0 0 1\ncpu2 5 0 0 5\n"
            "cpu3 6 0 0 4294967300 0 0 0 0 0 0\n",
            {{kNan, 1.0f - 3.0f / 5.0f, 0.5f, u3},
             {kNan, ((0.0f + 0.5f) + u3) / 2.0f},
             {1.0f - 3.0f / 5.0f, u3}}}}) {
    account_proc_stat(text, {clusters, 4}, prev_rows, stats, buffers);
    EXPECT_EQ(figures(stats), expected) << text;
  }
  // The summary row's numbers are kept behind the cores'.
  EXPECT_EQ(prev_rows.back(), (Row{40, 0, 10, 130, 60, 0, 0, 0, 0, 0}));
}

TEST(StatsTimeMethod, ACoreInNoClusterReportsAloneAndOneBeyondIsPassedOver) {
  // Clusters 0 and 2 make two cores: core 1 lies in no cluster, core 2 outside the tables.
  const std::vector<std::pair<int, int>> clusters{{0, 0}, {2, 2}};
  CpuCounters prev_rows;
  CpuStats stats(2, 2);
  StatsBuffers buffers;
  account_proc_stat("cpu0 1 0 0 3 0 0 0 0 0 0\ncpu1 1 0 0 1 0 0 0 0 0 0\ncpu2 3 0 0 1\n",
                    {clusters, 2}, prev_rows, stats, buffers);
  EXPECT_EQ(figures(stats), (Figures{{0.25f, 0.5f}, {0.25f, 0.0f}, {0.25f, 0.0f}})) << "ticks";
  CpufreqDir dir({{"policy0/affected_cpus", "0\n"},
                  {"policy2/affected_cpus", "2\n"},
                  {"policy0/stats/time_in_state", "1000 10 0 0 5 5\n"},
                  {"policy2/stats/time_in_state", "1000 10 0 0 5 5\n"}});
  Stats cycles(true, dir.path);
  ASSERT_TRUE(cycles.update_cpu_stats_by_cpu_cycles());
  dir.write("policy0/stats/time_in_state", "1000 20 0 0 10 10\n");
  ASSERT_TRUE(cycles.update_cpu_stats_by_cpu_cycles());
  EXPECT_EQ(figures(cycles.cycle_stats), (Figures{{0.5f, 0.0f}, {0.5f, kNan}, {0.5f, 0.0f}}))
      << "cycles";
}

// One cluster of two cores, frequency rows weighing 10 and 20 (at the tick rate of 100), and the
// time_in_state of each pass.
TEST(StatsCycleMethod, WeighsEachRowByItsFrequencyAndAveragesClusterSums) {
  CpufreqDir dir(
      {{"policy0/affected_cpus", "0 1\n"},
       {"policy0/stats/time_in_state", "1000 100 0 0 50 50 50 50\n2000 100 0 0 50 50 50 50\n"}});
  Stats cycles(true, dir.path);
  EXPECT_EQ(cycles.freq_table, (std::vector<Row>{{10, 20}}));
  const auto f = [](double d) { return static_cast<float>(d); };
  for (auto [text, expected] : std::vector<std::pair<std::string, std::optional<Figures>>>{
           // The first pass takes the counters: all zero.
           {"1000 100 0 0 50 50 50 50\n2000 100 0 0 50 50 50 50\n", Figures{{0, 0}, {0}, {0}}},
           // Core 0: busy 5*10 + 1*20, idle 5*10 + 9*20. Core 1: 3 busy and 3 idle of 10 in the
           // first row leave 4 * 10 as other, which counts as used. The cluster: 1 - 360 / 600.
           {"1000 110 0 0 55 55 53 53\n2000 110 0 0 51 59 55 55\n",
            Figures{{f(1.0 - 230.0 / 300.0), f(1.0 - 130.0 / 300.0)},
                    {f(1.0 - 360.0 / 600.0)},
                    {f(1.0 - 130.0 / 300.0)}}},
           // Total time moved, idle did not: 1.0, whatever busy did.
           {"1000 120 0 0 60 55 53 53\n2000 110 0 0 51 59 55 55\n", Figures{{1, 1}, {1}, {1}}},
           // Nothing moved: not a number, which the maximum passes over.
           {"1000 120 0 0 60 55 53 53\n2000 110 0 0 51 59 55 55\n",
            Figures{{kNan, kNan}, {kNan}, {0}}},
           // A row gained since start-up has no weight and is passed over.
           {"1000 130 0 0 60 65 53 53\n2000 110 0 0 51 59 55 55\n3000 1 0 0 1 1 1 1\n",
            Figures{{0, 1}, {f(1.0 - 100.0 / 200.0)}, {1}}},
           // A row short of a core's columns, in any row, fails the reading.
           {"1000 140 0 0 60 65 53\n2000 110 0 0 51 59 55 55\n", std::nullopt},
           {"1000 140 0 0 60 65 53 53\n2000 110 0 0 51 59 55 55 1\n", std::nullopt}}) {
    dir.write("policy0/stats/time_in_state", text);
    testing::internal::CaptureStderr();
    const bool read = cycles.update_cpu_stats_by_cpu_cycles();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(read ? std::optional(figures(cycles.cycle_stats)) : std::nullopt, expected) << text;
  }
}

// Files by path; a missing path does not exist.
struct FakeReader : FileReader {
  std::string ReadFile(std::string path) override { return files.count(path) ? files[path] : ""; }
  bool Exists(std::string path) override { return files.count(path) != 0; }
  std::map<std::string, std::string> files;
};

TEST(StatsGpu, UtilizationPrefersTheAccumulatingCountersAndFreqIsMegahertz) {
  const std::string kgsl = "/sys/class/kgsl/kgsl-3d0/", accum = kgsl + "gpubusy_accum",
                    busy = kgsl + "gpubusy", clock = kgsl + "clock_mhz";
  const auto saved = file_reader;
  auto fake = std::make_shared<FakeReader>();
  file_reader = fake;
  using Files = std::map<std::string, std::string>;
  const std::optional<float> none, inf = std::numeric_limits<float>::infinity();
  // Each run: the files at each call, and the utilisation and frequency read.
  for (const auto& run :
       std::vector<std::vector<std::tuple<Files, std::optional<float>, std::optional<float>>>>{
           {{{{accum, "50 200"}, {busy, "1 2"}, {clock, "525\n"}}, 0.25f, 0.525f},
            {{{accum, "100 400"}, {busy, "1 2"}, {clock, "0"}}, 0.25f, 0.0f},
            {{{accum, "100 400"}, {busy, "1 2"}, {clock, "abc"}}, none, 0.0f},  // 0 / 0
            {{{accum, "110 400"}}, inf, none},
            // Empty accumulating text falls through to the period counters.
            {{{accum, ""}, {busy, "   1000    4000\n"}}, 0.25f, none}},
           // Without the accumulating file at the first call, only the period counters count.
           {{{{busy, "0 0"}}, none, none}, {{{accum, "1 2"}, {busy, "3 4"}}, 0.75f, none}},
           // Neither at the first call: never a reading, even when they come later.
           {{{}, none, none}, {{{accum, "1 2"}, {busy, "3 4"}}, none, none}}}) {
    CpufreqDir dir({});
    Stats stats(false, dir.path);
    for (const auto& [files, util, freq] : run) {
      fake->files = files;
      float got_util = -1, got_freq = -1;
      EXPECT_EQ(stats.get_gpu_utilization(got_util) ? std::optional(got_util) : none, util);
      EXPECT_EQ(stats.get_gpu_freq(got_freq) ? std::optional(got_freq) : none, freq);
    }
  }
  file_reader = saved;
}

}  // namespace
}  // namespace emberline
