// One output step of the stats plugin, run inside the simulated headset:
//   emberline-sim run --frozen -- build/normal/bench/emberline_bench_stats
// Argument 0 is the tick-based method alone, 1 adds the cycle-based one (--cycle). The counter
// allocs_per_output is the number of heap allocations one step makes.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "plugins/stats_plugin.h"

namespace {
std::atomic<long> allocations{0};
}  // namespace

void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace emberline {
namespace {

void BM_StatsOutput(benchmark::State& state) {
  StatsPlugin plugin(state.range(0) != 0);
  plugin.init();
  if (!plugin.on_output()) {
    state.SkipWithError("/proc/stat or cpufreq missing: run inside emberline-sim");
    return;
  }
  long before = allocations.load();
  for (auto _ : state) benchmark::DoNotOptimize(plugin.on_output());
  state.counters["allocs_per_output"] = benchmark::Counter(
      static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations()));
}
BENCHMARK(BM_StatsOutput)->Arg(0)->Arg(1);

}  // namespace
}  // namespace emberline
