// The stats plugin in a frozen generic headset (cores 0-3 and 4-7): reports of crafted counters,
// the warnings for missing sources, and a restricted run that loses /proc/stat.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>

#include "harness.h"
#include "plugins/stats_plugin.h"

namespace {

const std::string kCpufreq = "/sys/devices/system/cpu/cpufreq/";
const std::string kKgsl = "/sys/class/kgsl/kgsl-3d0/";
const std::string kBattery = "/sys/class/power_supply/battery/";

TEST(Stats, ReportsCraftedCountersInEveryFigure) {
  // /proc is read-only inside; its files are written where the sim keeps them.
  e2e::write_file(e2e::state_dir() + "/proc/stat",
                  "cpu  19 2 13 192 15 6 7 8 9 10\n"
                  "cpu0 10 0 10 70 10 0 0 0 0 0\n"
                  "cpu1 1 2 3 4 5 6 7 8 9 10\n"
                  "cpu2 0 0 0 100 0 0 0 0 0 0\n"
                  "intr 1 2 3\nctxt 99\nbtime 1\n"
                  "cpu4 3 0 0 1 0 0 0 0 0 0\n"
                  "cpu5 1 0 0 2 0 0 0 0 0 0\n"
                  "cpu6 0 0 0 0 0 0 0 0 0 0\n"
                  "cpu7 5 0 0 5 0 0 0 0 0 0\n"
                  "cpu9 1 1 1 1 1 1 1 1 1 1\n");
  e2e::write_file(kCpufreq + "policy0/cpuinfo_cur_freq", "1804800\n");
  e2e::write_file(kCpufreq + "policy4/cpuinfo_cur_freq", "710400\n");
  std::remove((kKgsl + "gpubusy_accum").c_str());
  e2e::write_file(kKgsl + "gpubusy", "    250    1000\n");
  e2e::write_file(kKgsl + "clock_mhz", "525\n");
  e2e::write_file("/sys/class/backlight/panel0-backlight/bl_power", "4\n");
  e2e::write_file(kBattery + "charge_counter", "3101234\n");
  e2e::write_file(kBattery + "charge_full", "5000000\n");

  auto result = e2e::run({"-c", "--no-power", "--stats", "-t", "1", "--cycle", "--csv"});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.err.find("WARNING"), std::string::npos) << result.err;
  // Screen, battery, then by the time method: cores 0-7 and each cluster's frequency, average and
  // maximum. Core 3 is offline, core 6 saw no tick and cpu9 lies outside the topology. The
  // cycle-based figures that follow start at zero, the frequencies do not; the GPU comes last.
  const auto rows = e2e::lines(e2e::round_seconds(e2e::mask_times(result.out)));
  ASSERT_EQ(rows.size(), 2u) << result.out;  // the header (the golden schema's keys) and a report
  EXPECT_EQ(rows[1],
            "1,1.000,<epoch>,false,0.62025,0.20000,0.83636,0.00000,0.00000,0.75000,0.33333,nan,"
            "0.50000,1.805,0.25909,0.83636,0.710,nan,0.75000,0.00000,0.00000,0.00000,0.00000,"
            "0.00000,0.00000,0.00000,0.00000,1.805,0.00000,0.00000,0.710,0.00000,0.00000,0.525,"
            "0.25000");
}

// The run ends at its time limit, which gives charging back.
TEST(Stats, MissingSourcesWarnAtStartAndReportNull) {
  for (const std::string& path :
       {kKgsl + "gpubusy_accum", kKgsl + "gpubusy", kKgsl + "clock_mhz",
        std::string("/sys/class/backlight/panel0-backlight/bl_power"), kBattery + "charge_counter",
        kCpufreq + "policy4/cpuinfo_cur_freq", kCpufreq + "policy0/stats/time_in_state"}) {
    ASSERT_EQ(std::remove(path.c_str()), 0) << path;
  }
  auto result = e2e::run({"--no-power", "--stats", "--cycle", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err,
            "Failed to open " + kCpufreq + "policy0/stats/time_in_state\n" +
                "WARNING: stats: cycle based util is not available on this machine.\n"
                "WARNING: stats: failed to read screen status\n"
                "WARNING: stats: failed to read GPU util\n"
                "WARNING: stats: failed to read GPU freq\n"
                "WARNING: stats: failed to read battery level\n"
                "WARNING: stats: failed to read CPU frequency\n"
                "Disabling charging...\nStarting 1 second trace. \nPress CTRL-C to stop...\n\n\n"
                "Enabling charging...\n");
  EXPECT_EQ(e2e::recorded_writes(8), e2e::charging_suspended_then_resumed());
  auto out = e2e::lines(result.out);
  ASSERT_EQ(out.size(), 7u) << result.out;
  EXPECT_EQ(out[1], "[Stats] screen: null | bat: null");
  EXPECT_EQ(out[4].substr(0, 28), "    [CPU4-7] freq: null | av");
  EXPECT_EQ(out[5], "    [GPU] freq: null | util: null");
}

// Run without the right to override file modes: a charging node that refuses writing is named
// once and skipped, and losing /proc/stat fails the plugin on the way, which ends the run with 1
// and still gives charging back.
TEST(Stats, LosingProcStatEndsTheRunWithOneAndGivesChargingBack) {
  for (const char* node : e2e::kChargingNodes) chmod(node, 0666);
  const std::string refusing = e2e::kChargingNodes[2];
  chmod(refusing.c_str(), 0444);
  // Root reads past file modes with either of two capabilities; the harness takes the other.
  ASSERT_TRUE(e2e::drop_across_exec(CAP_DAC_READ_SEARCH));
  ASSERT_EQ(chmod((e2e::state_dir() + "/proc/stat").c_str(), 0), 0);
  e2e::Options restricted;
  restricted.without_dac_override = true;
  auto result = e2e::run({"--no-power", "--stats", "-t", "5"}, restricted);
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "Permission denied for " + refusing +
                            "\nDisabling charging...\nStarting 5 second trace. \nPress CTRL-C to "
                            "stop...\n\n\nFailed to open /proc/stat\nERROR: Output update failed "
                            "for plugin 'stats'\nEnabling charging...\n");
  std::vector<std::string> expected;
  for (const std::string& write : e2e::charging_suspended_then_resumed()) {
    if (!write.starts_with(refusing)) expected.push_back(write);
  }
  EXPECT_EQ(e2e::recorded_writes(6), expected);
}

// The backlight's state is read through one handle for the run, afresh at every report: only
// FB_BLANK_POWERDOWN (4, in any base "%i" reads) turns the screen off.
TEST(Stats, ScreenIsOffOnlyWhenTheBacklightIsPoweredDown) {
  emberline::StatsPlugin stats(false);
  const std::pair<const char*, bool> cases[] = {
      {"0\n", true},    {"4\n", false}, {"1\n", true},       {"2\n", true},
      {"0x4\n", false}, {"3\n", true},  {"04\n", false},     {"010\n", true},
      {"-4\n", true},   {"4\n", false}, {"garbage\n", true}, {"44\n", true}};
  for (auto [content, on] : cases) {
    e2e::write_file("/sys/class/backlight/panel0-backlight/bl_power", content);
    bool screen = !on;
    ASSERT_TRUE(stats.is_screen_on(screen)) << content;
    EXPECT_EQ(screen, on) << content;
  }
}

}  // namespace
