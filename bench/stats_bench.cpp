// One output step of the stats plugin, run inside the simulated headset:
//   emberline-sim run --frozen -- build/normal/bench/emberline_bench_stats
// Argument 0 is the tick-based method alone, 1 adds the cycle-based one (--cycle). The counter
// allocs_per_output is the number of heap allocations one step makes.

#include <benchmark/benchmark.h>

#include "plugins/stats_plugin.h"
#include "support/heap_counter.h"

namespace emberline {
namespace {

void BM_StatsOutput(benchmark::State& state) {
  StatsPlugin plugin(state.range(0) != 0);
  plugin.init();
  if (!plugin.on_output()) {
    state.SkipWithError("/proc/stat or cpufreq missing: run inside emberline-sim");
    return;
  }
  long before = heap_counter::allocations.load();
  for (auto _ : state) benchmark::DoNotOptimize(plugin.on_output());
  state.counters["allocs_per_output"] =
      benchmark::Counter(static_cast<double>(heap_counter::allocations.load() - before) /
                         static_cast<double>(state.iterations()));
}
BENCHMARK(BM_StatsOutput)->Arg(0)->Arg(1);

}  // namespace
}  // namespace emberline
