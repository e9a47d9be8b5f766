// /proc/stat as the stats plugin reads it at each output: the first text is the topology (one
// affected_cpus line per policy), every further text one tick's /proc/stat.

#include <cmath>
#include <cstdint>

#include "fuzz_input.h"
#include "stats_access.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto texts = fuzz::pieces(data, size);
  fuzz::FuzzedStats stats(texts[0]);
  const auto cores = static_cast<std::size_t>(stats.num_cores);
  for (std::size_t t = 1; t < texts.size(); ++t) {
    stats.account_proc_stat(texts[t]);
    // Rows for cores the topology does not hold must be passed over, never stored.
    fuzz::check(stats.prev_rows.size() == cores + 1, "one kept row per core and the summary");
    for (const auto& row : stats.prev_rows) fuzz::check(row.size() == 10, "ten kept columns");
    fuzz::check(stats.time_stats.core_util.size() == cores, "one figure per core");
    for (std::size_t core = 0; core < cores; ++core) {
      const int c = stats.cluster_of(static_cast<int>(core));
      const float util = stats.time_stats.core_util[core];
      if (c < 0 || std::isnan(util)) continue;
      fuzz::check(stats.time_stats.cluster_max_util[static_cast<std::size_t>(c)] >= util,
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
