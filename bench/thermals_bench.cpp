// Runs inside the simulated headset, where the fan's node and the thermal class exist:
//   emberline-sim run --frozen -- build/normal/bench/emberline_bench_thermals

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/thermal/default_thermal.h"
#include "platform/thermal/service_registry.h"
#include "plugins/thermals_plugin.h"

namespace emberline {
namespace {

namespace hal = android::hardware::thermal::V2_0;
constexpr int kSensors = 30;

// The thermals plugin's output step alone: a service in this process answers from memory.
class MemoryThermal : public hal::IThermal {
 public:
  MemoryThermal() {
    const char* names[] = {"cpuss-", "gpuss-", "battery-", "disp-", "cam-"};
    for (int i = 0; i < kSensors; ++i) {
      sensors_.push_back({static_cast<hal::TemperatureType>(i % 5),
                          names[i % 5] + std::to_string(i),
                          30.0f + i,
                          {}});
    }
  }
  android::hardware::Return<void> getCurrentTemperatures(bool, hal::TemperatureType,
                                                         getCurrentTemperatures_cb cb) override {
    cb({}, sensors_);
    return android::hardware::Void();
  }
  android::hardware::Return<void> registerThermalChangedCallback(
      const android::sp<hal::IThermalChangedCallback>&, bool, hal::TemperatureType,
      registerThermalChangedCallback_cb cb) override {
    cb({});
    return android::hardware::Void();
  }
  android::hardware::Return<void> unregisterThermalChangedCallback(
      const android::sp<hal::IThermalChangedCallback>&,
      unregisterThermalChangedCallback_cb cb) override {
    cb({});
    return android::hardware::Void();
  }

 private:
  android::hardware::hidl_vec<hal::Temperature> sensors_;
};

void run_outputs(benchmark::State& state) {
  ThermalsPlugin plugin;
  if (!plugin.init()) {
    state.SkipWithError("no fan node: run inside emberline-sim");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(plugin.on_output());
}

void BM_ThermalsOutputServiceInMemory(benchmark::State& state) {
  hal::registry::register_service(std::make_shared<MemoryThermal>());
  run_outputs(state);
}
BENCHMARK(BM_ThermalsOutputServiceInMemory);

// With the default service, which reads every zone's files at each call: the headset's zones
// topped up to 30 with copies of the first.
void BM_ThermalsOutputServiceOverSysfs(benchmark::State& state) {
  namespace fs = std::filesystem;
  const fs::path thermal = "/sys/class/thermal";
  for (int n = 0; n < kSensors; ++n) {
    fs::path zone = thermal / ("thermal_zone" + std::to_string(n));
    if (fs::exists(zone)) continue;
    std::error_code error;
    fs::copy(thermal / "thermal_zone0", zone, error);
    std::ofstream(zone / "type") << "cpuss-" << n << "\n";
  }
  hal::registry::register_service(std::make_shared<hal::implementation::DefaultThermal>());
  run_outputs(state);
}
BENCHMARK(BM_ThermalsOutputServiceOverSysfs);

}  // namespace
}  // namespace emberline
