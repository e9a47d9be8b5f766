// The headset's CPU, GPU and gauge counters, stepped in-process through each profile's workload.

#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <numeric>
#include <sstream>

#include "model.h"
#include "profile.h"

namespace emberline::sim {
namespace {

std::string render(const Profile& profile, const std::string& path, const DeviceState& s) {
  for (const Node& n : profile.nodes) {
    if (n.path == path) return n.render ? n.render(s) : n.content;
  }
  ADD_FAILURE() << "no node " << path;
  return "";
}

std::vector<std::vector<unsigned long>> rows(const std::string& text) {
  std::vector<std::vector<unsigned long>> result;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string word;
    result.emplace_back();
    while (words >> word) {
      if (std::isdigit(static_cast<unsigned char>(word[0])))
        result.back().push_back(std::stoul(word));
    }
  }
  return result;
}

class StatsSliceTest : public testing::TestWithParam<const char*> {
 protected:
  const Profile& profile = *find_profile(GetParam());
};

TEST_P(StatsSliceTest, TicksAgreeWithResidencyAndFollowTheLoad) {
  DeviceModel model(profile.model, 7);
  const std::size_t cores = GetParam() == std::string("fennick") ? 6 : 8;
  double busy_ticks[2] = {}, khz[2] = {}, gpu[2] = {};  // idle phases, busy phases
  int steps[2] = {};
  for (int i = 0; i < 6000; ++i) {
    const StatsState before = model.state().stats;
    model.step();
    const DeviceState& s = model.state();
    const bool busy = s.load > 0.5;
    if (s.load != 0 && !busy) continue;
    ++steps[busy];
    for (std::size_t c = 0; c < s.stats.cores.size(); ++c) {
      const auto& t = s.stats.cores[c].ticks;
      busy_ticks[busy] +=
          (t[0] + t[1] + t[2] + t[5] + t[6]) -
          (before.cores[c].ticks[0] + before.cores[c].ticks[1] + before.cores[c].ticks[2] +
           before.cores[c].ticks[5] + before.cores[c].ticks[6]);
    }
    khz[busy] += static_cast<double>(
        std::stoul(render(profile, "/sys/devices/system/cpu/cpufreq/policy4/cpuinfo_cur_freq", s)));
    gpu[busy] += s.stats.gpu_step_busy_us;
  }
  ASSERT_GT(steps[0], 0);
  ASSERT_GT(steps[1], 0);
  EXPECT_GT(busy_ticks[1] / steps[1], 2 * busy_ticks[0] / steps[0]);
  EXPECT_GT(khz[1] / steps[1], 1.5 * khz[0] / steps[0]);
  EXPECT_GT(gpu[1] / steps[1], 3 * gpu[0] / steps[0]);

  // Each core's /proc/stat busy and idle ticks are its time_in_state columns summed over the
  // frequency rows, and in each row busy and idle make up the cluster's time there.
  const auto stat = rows(render(profile, "/proc/stat", model.state()));
  ASSERT_EQ(stat.size(), cores + 8);
  std::size_t core = 0;
  for (const char* policy : {"policy0", "policy4"}) {
    const auto table = rows(render(
        profile, "/sys/devices/system/cpu/cpufreq/" + std::string(policy) + "/stats/time_in_state",
        model.state()));
    const std::size_t size = (table[0].size() - 4) / 2;
    for (std::size_t k = 0; k < size; ++k, ++core) {
      unsigned long busy = 0, idle = 0;
      for (const auto& row : table) {
        EXPECT_EQ(row[4 + 2 * k] + row[5 + 2 * k], row[1]) << policy << " core " << k;
        busy += row[4 + 2 * k];
        idle += row[5 + 2 * k];
      }
      const auto& ticks = stat[core + 1];
      EXPECT_EQ(ticks[3] + ticks[4], idle) << "cpu" << core;
      EXPECT_EQ(std::accumulate(ticks.begin(), ticks.end(), 0ul) - ticks[3] - ticks[4], busy)
          << "cpu" << core;
    }
  }
  EXPECT_EQ(core, cores);
}

TEST_P(StatsSliceTest, GaugeFallsOnlyWhileChargingIsSuspended) {
  DeviceModel model(profile.model, 1);
  const std::string counter = "/sys/class/power_supply/battery/charge_counter";
  for (bool suspended : {true, false}) {
    model.set_charging_suspended(suspended);
    const long start = std::stol(render(profile, counter, model.state()));
    for (int i = 0; i < 30000; ++i) model.step();
    const long end = std::stol(render(profile, counter, model.state()));
    EXPECT_EQ(end < start, suspended) << start << " -> " << end;
  }
  EXPECT_EQ(std::stol(render(profile, "/sys/class/power_supply/battery/charge_full", {})),
            std::lround(profile.model.power.capacity_ah * 1e6));
}

INSTANTIATE_TEST_SUITE_P(Profiles, StatsSliceTest,
                         testing::Values("generic", "fennick", "brantley"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace emberline::sim
