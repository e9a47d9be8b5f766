// One sample tick of the DRAM bandwidth plugin; runs inside the simulated headset, which has the
// monitor driver's nodes:
//   emberline-sim run --frozen --profile fennick -- build/normal/bench/emberline_bench_dram

#include <benchmark/benchmark.h>

#include <fstream>
#include <string>

#include "plugins/quillon_dram_bandwidth_plugin.h"
#include "support/heap_counter.h"

namespace emberline {
namespace {

// Lists of N samples in each monitor, as a driver with a 1 ms period shows them to a tool that
// samples every N ms.
void BM_DramSample(benchmark::State& state) {
  const std::string root = "/sys/devices/system/cpu/bw_prof/";
  std::string list;
  for (long i = 0; i < state.range(0); ++i) {
    list += std::to_string(i) + "\t" + std::to_string(1000 + i % 700) + "\t8000\t" +
            std::to_string(547 + i % 3) + "\n";
  }
  for (int m = 0; m < 3; ++m)
    std::ofstream(root + "bwmon" + std::to_string(m) + "/last_sample") << list;

  QuillonDRAMBandwidthPlugin plugin(1);
  if (!plugin.init()) {
    state.SkipWithError("monitor nodes missing: run inside emberline-sim --profile fennick");
    return;
  }
  plugin.on_sample();
  const long before = heap_counter::allocations.load();
  for (auto _ : state) benchmark::DoNotOptimize(plugin.on_sample());
  state.counters["allocations_per_tick"] =
      benchmark::Counter(static_cast<double>(heap_counter::allocations.load() - before) /
                         static_cast<double>(state.iterations()));
}
BENCHMARK(BM_DramSample)->Arg(10)->Arg(100)->Arg(1000);

}  // namespace
}  // namespace emberline
