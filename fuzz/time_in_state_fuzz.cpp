// A cluster's extended time_in_state as the stats plugin reads it for cycle-based utilisation.
// The first text is the topology (one affected_cpus line per policy), then one text per cluster
// as read at start-up for the frequency weights, then readings, cluster after cluster.

#include <cmath>
#include <cstdint>

#include "cpu_topology.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto texts = fuzz::pieces(data, size);
  const fuzz::Cpus cpus(texts[0]);
  const emberline::CpuTopology topology = cpus.topology();
  const int clusters = static_cast<int>(cpus.clusters.size());
  if (clusters == 0) return 0;
  emberline::CpuCounters freq_table, total_time(cpus.cores()), prev_total_time;
  emberline::CpuBusyIdle busy_idle(cpus.cores()), prev_busy_idle;

  std::size_t t = 1;
  for (int c = 0; c < clusters; ++c, ++t) {
    if (t >= texts.size()) return 0;
    const unsigned long tick_rate = 1 + texts[t].size() % 1000;
    if (!emberline::add_frequency_weights(texts[t], topology, c, tick_rate, freq_table, busy_idle,
                                          total_time)) {
      return 0;
    }
    fuzz::check(freq_table.size() == static_cast<std::size_t>(c) + 1,
                "one weight table per cluster");
  }
  emberline::CpuStats stats(static_cast<unsigned>(clusters), static_cast<unsigned>(cpus.cores()));
  emberline::StatsBuffers buffers;
  for (int c = 0; t < texts.size(); ++t, c = (c + 1) % clusters) {
    emberline::parse_time_in_state(texts[t], topology, c, freq_table, busy_idle, total_time,
                                   buffers);
    for (std::size_t core = 0; core < cpus.cores(); ++core) {
      // Readings fill the tables sized at start-up and never grow them.
      const int owner = topology.cluster_of(static_cast<int>(core));
      const std::size_t rows = owner < 0 ? 0 : freq_table[static_cast<std::size_t>(owner)].size();
      fuzz::check(busy_idle[core].size() == rows && total_time[core].size() == rows,
                  "per-core tables keep the size of their cluster's weights");
    }
    if (!prev_busy_idle.empty()) {
      emberline::cycle_utilisation(topology, freq_table, busy_idle, prev_busy_idle, total_time,
                                   prev_total_time, stats, buffers);
      for (float util : stats.core_util) {
        // Idle over a sum of unsigned cycles is never negative, however the sums wrapped.
        fuzz::check(std::isnan(util) || util <= 1.0f, "no core more than fully used");
      }
    }
    prev_busy_idle = busy_idle;
    prev_total_time = total_time;
  }
  emberline::parse_time_in_state(texts.back(), topology, -1, freq_table, busy_idle, total_time,
                                 buffers);
  emberline::parse_time_in_state(texts.back(), topology, clusters, freq_table, busy_idle,
                                 total_time, buffers);
  return 0;
}
