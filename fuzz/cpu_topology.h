#pragma once

// A CPU topology from the first text of a fuzz input, one affected_cpus line per policy, as the
// stats plugin finds it in the cpufreq directory, with the tables its parsers fill sized to it.

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "plugins/stats_parsers.h"

namespace fuzz {

struct Cpus {
  // Cores above 63 are left out: they only make each input slower, not the parsing different.
  explicit Cpus(const std::string& affected) {
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
    for (const auto& [first, last] : clusters) num_cores += last - first + 1;
  }

  emberline::CpuTopology topology() const { return {clusters, num_cores}; }
  std::size_t cores() const { return static_cast<std::size_t>(num_cores); }

  std::vector<std::pair<int, int>> clusters;
  int num_cores = 0;
};

}  // namespace fuzz
