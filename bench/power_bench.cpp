// Runs inside the simulated headset, where the power supply files exist:
//   emberline-sim run --frozen -- build/normal/bench/emberline_bench_power

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <iostream>

#include "emberline.h"
#include "plugins/power_plugin.h"

namespace emberline {
namespace {

void BM_PowerSampleStep(benchmark::State& state) {
  PowerWindowPlugin plugin(PowerPath::BATTERY, 20, false);
  if (!plugin.init()) {
    state.SkipWithError("power supply files missing: run inside emberline-sim");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(plugin.on_sample());
}
BENCHMARK(BM_PowerSampleStep);

// One whole report of the default run: the output step of the plugins, then rendering.
void BM_DefaultReport(benchmark::State& state) {
  const auto format = static_cast<OutputFormat>(state.range(0));
  Emberline engine(false);
  engine.set_continue_charging(true);
  engine.add_timestamp_fields();
  engine.register_power_plugin(PowerPath::BATTERY, true, 20, 0.2f);
  if (!engine.init(false)) {
    state.SkipWithError("power supply files missing: run inside emberline-sim");
    return;
  }
  PluginManager& root = engine.manager();
  for (auto _ : state) {
    root.on_output();
    std::string text;
    switch (format) {
      case OutputFormat::CSV:
        text = root._to_csv(false);
        break;
      case OutputFormat::JSON:
        text = root.to_json();
        break;
      case OutputFormat::TEXT:
        text = root.to_str();
        break;
      default:
        text = root.to_inline_str();
        break;
    }
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_DefaultReport)
    ->Arg(static_cast<int>(OutputFormat::TEXT))
    ->Arg(static_cast<int>(OutputFormat::INLINE))
    ->Arg(static_cast<int>(OutputFormat::JSON))
    ->Arg(static_cast<int>(OutputFormat::CSV));

}  // namespace
}  // namespace emberline
