// /proc/stat as the stats plugin reads it at each output: the first text is the topology (one
// affected_cpus line per policy), every further text one tick's /proc/stat.

#include <cmath>
#include <cstdint>

#include "cpu_topology.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto texts = fuzz::pieces(data, size);
  const fuzz::Cpus cpus(texts[0]);
  const emberline::CpuTopology topology = cpus.topology();
  emberline::CpuCounters prev_rows;
  emberline::CpuStats stats(static_cast<unsigned>(cpus.clusters.size()),
                            static_cast<unsigned>(cpus.num_cores));
  emberline::StatsBuffers buffers;
  for (std::size_t t = 1; t < texts.size(); ++t) {
    emberline::account_proc_stat(texts[t], topology, prev_rows, stats, buffers);
    // Rows for cores the topology does not hold must be passed over, never stored.
    fuzz::check(prev_rows.size() == cpus.cores() + 1, "one kept row per core and the summary");
    for (const auto& row : prev_rows) fuzz::check(row.size() == 10, "ten kept columns");
    fuzz::check(stats.core_util.size() == cpus.cores(), "one figure per core");
    for (std::size_t core = 0; core < cpus.cores(); ++core) {
      const int c = topology.cluster_of(static_cast<int>(core));
      const float util = stats.core_util[core];
      if (c < 0 || std::isnan(util)) continue;
      fuzz::check(stats.cluster_max_util[static_cast<std::size_t>(c)] >= util,
                  "a cluster's maximum covers each of its cores");
    }
  }

  // A row's numbers: never more than its words.
  std::string line = texts.back();
  std::size_t words = 0;
  bool in_word = false;
  for (char ch : line) {
    if (ch == ' ') {
      in_word = false;
    } else if (!in_word) {
      in_word = true;
      ++words;
    }
  }
  const auto numbers = emberline::get_cpu_stat(line);
  fuzz::check(numbers.size() <= words, "no more numbers than words");
  return 0;
}
