// The DRAM bandwidth plugin against the simulated monitor driver: what it sets, what it puts back
// on each way out, what a sample tick costs, and what it traces.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <functional>

#include "harness.h"
#include "plugins/quillon_dram_bandwidth_plugin.h"

namespace {

using emberline::QuillonDRAMBandwidthPlugin;

const std::string kRoot = "/sys/devices/system/cpu/bw_prof/";

std::string monitor(int m, const char* node) {
  return kRoot + "bwmon" + std::to_string(m) + "/" + node;
}

// The driver's writes, as the headset recorded them, of a run at `period_hex` whose monitors
// `switched` were switched on: each monitor on after the period, then the period and each off.
std::vector<std::string> driver_writes(const std::string& period_hex, int switched) {
  std::vector<std::string> result;
  for (auto [period, on] : {std::pair{period_hex, "31"}, {"3130300a", "30"}}) {
    result.push_back(kRoot + "sample_ms 0 " + period);
    for (int m = 0; m < switched; ++m) result.push_back(monitor(m, "mon_enabled") + " 0 " + on);
  }
  return result;
}

// The order of the client nodes is the driver's; here the GPU's monitor comes first.
void lay_out_monitors() {
  e2e::write_file(monitor(0, "client"), "gpu\n");
  e2e::write_file(monitor(1, "client"), "total \t\n");
  e2e::write_file(monitor(2, "client"), "cpu\n");
  e2e::write_file(monitor(0, "last_sample"), "1\t100\t400\tc8\n");
  e2e::write_file(monitor(1, "last_sample"), "1\t300\t800\t547\n2\t500\t800\t1017\nbad line\n");
  e2e::write_file(monitor(2, "last_sample"), "1\t40\t100\t0\n2\t60\t100\t0\n");
}

TEST(DramBandwidth, SetsTheDriverForTheRunAndPutsItBack) {
  lay_out_monitors();
  {
    QuillonDRAMBandwidthPlugin plugin(7);
    ASSERT_TRUE(plugin.init());
    EXPECT_EQ(e2e::read_file(kRoot + "sample_ms"), "7");
    e2e::recorded_writes(4, 0, kRoot);
    for (int m = 0; m < 3; ++m) EXPECT_EQ(e2e::read_file(monitor(m, "mon_enabled")), "1");
    ASSERT_TRUE(plugin.on_sample());
    EXPECT_EQ(
        plugin.to_str(),
        "cpu_bw_mbps: 80 | gpu_bw_mbps: 256 | total_bw_mbps: 1024 | cpu_min_bw_mbps: 64 | "
        "gpu_min_bw_mbps: 256 | total_min_bw_mbps: 768 | cpu_max_bw_mbps: 96 | "
        "gpu_max_bw_mbps: 256 | total_max_bw_mbps: 1280 | cpu_samples: 2 | gpu_samples: 1 | "
        "total_samples: 2 | cpu_stddev_bw_mbps: 16.000000 | gpu_stddev_bw_mbps: 0.000000 | "
        "total_stddev_bw_mbps: 256.000000 | cpu_util_prct: 31.250% | gpu_util_prct: 25.000% | "
        "total_util_prct: 50.000% | total_avail_bw_mbps: 2048 | ddr_freq_mhz: 2735 | "
        "ddr_min_freq_mhz: 1351 | ddr_max_freq_mhz: 4119");

    // An emptied list leaves its client's last statistics standing.
    e2e::write_file(monitor(2, "last_sample"), "");
    e2e::write_file(monitor(0, "last_sample"), "9\t200\t400\t0\n");
    ASSERT_TRUE(plugin.on_sample());
    std::string text = plugin.to_str();
    EXPECT_NE(text.find("cpu_bw_mbps: 80 | gpu_bw_mbps: 512 |"), std::string::npos) << text;
  }
  EXPECT_EQ(e2e::read_file(kRoot + "sample_ms"), "100\n");
  for (int m = 0; m < 3; ++m) EXPECT_EQ(e2e::read_file(monitor(m, "mon_enabled")), "0");
  EXPECT_EQ(e2e::recorded_writes(8, 0, kRoot), driver_writes("37", 3));
}

// The sample lists are read by path at every tick: a list that is not there yet costs its line
// and leaves the last figures standing, and one that appears, or is replaced by a new file, is
// read from then on.
TEST(DramBandwidth, SampleListsAreFollowedByPathThroughEveryChange) {
  lay_out_monitors();
  const std::string cpu = monitor(2, "last_sample");
  std::remove(cpu.c_str());
  QuillonDRAMBandwidthPlugin plugin(50);
  ASSERT_TRUE(plugin.init());
  auto cpu_figures = [&] {
    const std::string text = plugin.to_str();
    return text.substr(0, text.find(" | gpu_bw_mbps"));
  };
  const std::string missing = "Failed to read sample from '" + cpu + "'\n";
  // What happens to the CPU's list before a tick, the line that tick writes, and the figure.
  struct Step {
    std::function<void()> change;
    std::string err;
    std::string figure;
  } steps[] = {
      {[] {}, missing, "cpu_bw_mbps: null"},
      {[&] { e2e::write_file(cpu, "1\t40\t100\t0\n2\t60\t100\t0\n"); }, "", "cpu_bw_mbps: 80"},
      {[&] {
         e2e::write_file(cpu + ".new", "1\t100\t100\t0\n");
         std::rename((cpu + ".new").c_str(), cpu.c_str());
       },
       "", "cpu_bw_mbps: 256"},
      {[&] { e2e::write_file(cpu, "1\t20\t100\t0\n1\t30\t100\t0\n1\t40\t100\t0\n"); }, "",
       "cpu_bw_mbps: 48"},
      {[&] { std::remove(cpu.c_str()); }, missing, "cpu_bw_mbps: 48"},
      {[&] { e2e::write_file(cpu, "1\t8\t100\t0\n"); }, "", "cpu_bw_mbps: 8"},
  };
  for (const Step& step : steps) {
    step.change();
    testing::internal::CaptureStderr();
    ASSERT_TRUE(plugin.on_sample());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), step.err) << step.figure;
    EXPECT_EQ(cpu_figures(), step.figure);
  }
}

TEST(DramBandwidth, AMonitorThatRefusesItsSwitchFailsInitAndTheOthersAreSwitchedBack) {
  // A directory in the node's place refuses every write.
  std::remove(monitor(1, "mon_enabled").c_str());
  mkdir(monitor(1, "mon_enabled").c_str(), 0755);
  testing::internal::CaptureStderr();
  {
    QuillonDRAMBandwidthPlugin plugin(50);
    EXPECT_FALSE(plugin.init());
    EXPECT_EQ(e2e::read_file(monitor(0, "mon_enabled")), "1");
    // The sim logs a write a moment after it; a rewrite before that would hide the first.
    e2e::recorded_writes(2, 0, kRoot);
  }
  const std::string refused = " to '" + monitor(1, "mon_enabled") + "'\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Failed to write value 1" + refused + "Failed to write value 0" + refused);
  EXPECT_EQ(e2e::read_file(kRoot + "sample_ms"), "100\n");
  EXPECT_EQ(e2e::recorded_writes(4, 0, kRoot), driver_writes("3530", 1));
  EXPECT_EQ(e2e::read_file(monitor(2, "mon_enabled")), "0\n");
}

// SIGKILL runs nothing of the tool's: the guard it left behind puts the nodes back from the
// restore table, which a fatal signal's handler shares. (A stop signal's way out is the plugin's
// destructor, which the driver test ends with.)
TEST(DramBandwidth, ARunEndedBySignalPutsTheNodesBack) {
  lay_out_monitors();
  e2e::Options stop;
  stop.signal_after_start = SIGKILL;
  auto result = e2e::run(
      {"-c", "--no-power", "--quillon-dram", "--quillon-dram-ms=3", "-s", "10", "-o", "10"}, stop);
  EXPECT_EQ(result.signal, SIGKILL) << result.err;
  const auto writes = e2e::recorded_writes(8, 0, kRoot);
  ASSERT_EQ(writes.size(), 8u);
  EXPECT_EQ(writes.front(), kRoot + "sample_ms 0 33");
  EXPECT_EQ(e2e::read_file(kRoot + "sample_ms"), "100\n");
  for (int m = 0; m < 3; ++m) EXPECT_EQ(e2e::read_file(monitor(m, "mon_enabled")), "0");
}

// Counts and bandwidths are integers on their tracks; shares are fractions. Samples fall at 0,
// 250, ... 1250 ms.
TEST(DramBandwidth, ElevenCountersFollowEachSample) {
  lay_out_monitors();
  auto result = e2e::run({"-c", "-p", "--no-power", "--quillon-dram", "-t", "1", "-s", "250"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  e2e::expect_each_sample(
      e2e::counter_events(e2e::only_file(".perfetto-trace")),
      {"CPU BW utilized MB/s 80", "CPU BW utilized percentage 0.3125", "GPU BW utilized MB/s 256",
       "GPU BW utilized percentage 0.25", "Total BW utilized MB/s 1024",
       "Total BW utilized percentage 0.5", "Total BW available MB/s 2048", "DDR frequency 2735",
       "CPU BW sample count 2", "GPU BW sample count 1", "Total BW sample count 2"},
      6);
}

}  // namespace
