// A cluster's extended time_in_state as the stats plugin reads it for cycle-based utilisation.
// The first text is the topology (one affected_cpus line per policy), then one text per cluster
// as read at start-up for the frequency weights, then readings, cluster after cluster.

#include <cstdint>

#include "fuzz_input.h"
#include "stats_access.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto texts = fuzz::pieces(data, size);
  fuzz::FuzzedStats stats(texts[0]);
  if (stats.num_clusters == 0) return 0;
  const auto cores = static_cast<std::size_t>(stats.num_cores);
  stats.busy_idle.assign(cores, {});
  stats.total_time.assign(cores, {});

  std::size_t t = 1;
  for (int c = 0; c < stats.num_clusters; ++c, ++t) {
    if (t >= texts.size()) return 0;
    const unsigned long tick_rate = 1 + texts[t].size() % 1000;
    if (!stats.add_frequency_weights(texts[t], c, tick_rate)) return 0;
    fuzz::check(stats.freq_table.size() == static_cast<std::size_t>(c) + 1,
                "one weight table per cluster");
  }
  for (int c = 0; t < texts.size(); ++t, c = (c + 1) % stats.num_clusters) {
    stats.read_time_in_state(texts[t], c);
    for (std::size_t core = 0; core < cores; ++core) {
      // Readings fill the tables sized at start-up and never grow them.
      const int owner = stats.cluster_of(static_cast<int>(core));
      const std::size_t rows =
          owner < 0 ? 0 : stats.freq_table[static_cast<std::size_t>(owner)].size();
      fuzz::check(stats.busy_idle[core].size() == rows && stats.total_time[core].size() == rows,
                  "per-core tables keep the size of their cluster's weights");
    }
  }
  stats.read_time_in_state(texts.back(), -1);
  stats.read_time_in_state(texts.back(), stats.num_clusters);
  return 0;
}
