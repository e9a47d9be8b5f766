#pragma once

// The stats plugin with the topology a fuzz input gives, instead of the one of this machine's
// cpufreq directory.

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "plugins/stats_plugin.h"

namespace fuzz {

class FuzzedStats : public emberline::StatsPlugin {
 public:
  // `affected` holds one affected_cpus line per policy. Cores above 63 are left out: they only
  // make each input slower, not the parsing different.
  explicit FuzzedStats(const std::string& affected)
      : emberline::StatsPlugin(false, "/nonexistent/cpufreq") {
    clusters.clear();
    std::size_t start = 0;
    while (start <= affected.size()) {
      std::size_t end = affected.find('\n', start);
      if (end == std::string::npos) end = affected.size();
      const auto cluster = emberline::parse_affected_cpus(affected.substr(start, end - start));
      if (cluster) {
        check(cluster->first <= cluster->second && cluster->second < 8192,
              "affected_cpus gives an ordered pair of core numbers");
        if (cluster->second < 64) clusters.push_back(*cluster);
      }
      start = end + 1;
    }
    std::sort(clusters.begin(), clusters.end());
    num_clusters = static_cast<int>(clusters.size());
    num_cores = 0;
    for (const auto& [first, last] : clusters) num_cores += last - first + 1;
    time_stats = CpuStats(num_clusters, num_cores);
  }

  using StatsPlugin::account_proc_stat;
  using StatsPlugin::add_frequency_weights;
  using StatsPlugin::busy_idle;
  using StatsPlugin::cluster_of;
  using StatsPlugin::clusters;
  using StatsPlugin::freq_table;
  using StatsPlugin::num_clusters;
  using StatsPlugin::num_cores;
  using StatsPlugin::prev_rows;
  using StatsPlugin::read_time_in_state;
  using StatsPlugin::time_stats;
  using StatsPlugin::total_time;
};

}  // namespace fuzz
