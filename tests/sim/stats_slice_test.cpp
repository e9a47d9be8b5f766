// The headset's CPU and GPU counters, stepped in-process through each profile's workload.

#include <gtest/gtest.h>

#include <cctype>
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

// The numbers of each line, words that start with a letter left out.
std::vector<std::vector<unsigned long>> rows(const std::string& text) {
  std::vector<std::vector<unsigned long>> result;
  std::istringstream lines(text);
  for (std::string line, word; std::getline(lines, line);) {
    result.emplace_back();
    for (std::istringstream words(line); words >> word;) {
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
  auto busy_ticks = [](const StatsState& s) {
    unsigned long sum = 0;
    for (const CoreCounters& c : s.cores)
      sum += c.ticks[0] + c.ticks[1] + c.ticks[2] + c.ticks[5] + c.ticks[6];
    return static_cast<double>(sum);
  };
  const std::string big_freq = "/sys/devices/system/cpu/cpufreq/policy4/cpuinfo_cur_freq";
  double busy[2] = {}, khz[2] = {}, gpu[2] = {}, steps[2] = {};  // idle phases, heavy phases
  for (int i = 0; i < 6000; ++i) {
    const double before = busy_ticks(model.state().stats);
    model.step();
    const DeviceState& s = model.state();
    if (s.load != 0 && s.load < 0.5) continue;
    const bool heavy = s.load != 0;
    ++steps[heavy];
    busy[heavy] += busy_ticks(s.stats) - before;
    khz[heavy] += std::stod(render(profile, big_freq, s));
    gpu[heavy] += s.stats.gpu_step_busy_us;
  }
  EXPECT_GT(busy[1] / steps[1], 2 * busy[0] / steps[0]);
  EXPECT_GT(khz[1] / steps[1], 1.5 * khz[0] / steps[0]);
  EXPECT_GT(gpu[1] / steps[1], 3 * gpu[0] / steps[0]);

  // Each core's /proc/stat busy and idle ticks are its time_in_state columns summed over the
  // frequency rows, and in each row its busy and idle make up the cluster's time there.
  const auto stat = rows(render(profile, "/proc/stat", model.state()));
  std::size_t core = 0;
  for (const char* policy : {"policy0", "policy4"}) {
    const auto table = rows(render(
        profile, "/sys/devices/system/cpu/cpufreq/" + std::string(policy) + "/stats/time_in_state",
        model.state()));
    for (std::size_t k = 0; k < (table[0].size() - 4) / 2; ++k, ++core) {
      unsigned long busy_sum = 0, idle_sum = 0;
      for (const auto& row : table) {
        EXPECT_EQ(row[4 + 2 * k] + row[5 + 2 * k], row[1]) << policy << " core " << k;
        busy_sum += row[4 + 2 * k];
        idle_sum += row[5 + 2 * k];
      }
      const auto& ticks = stat[core + 1];
      EXPECT_EQ(ticks[3] + ticks[4], idle_sum) << "cpu" << core;
      EXPECT_EQ(std::accumulate(ticks.begin(), ticks.end(), 0ul) - idle_sum, busy_sum) << core;
    }
  }
  EXPECT_EQ(core, GetParam() == std::string("fennick") ? 6u : 8u);
  EXPECT_EQ(stat.size(), core + 8);
}

INSTANTIATE_TEST_SUITE_P(Profiles, StatsSliceTest,
                         testing::Values("generic", "fennick", "brantley"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace emberline::sim
