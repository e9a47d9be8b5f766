// The GPU's kgsl nodes (busy counters and clock) and a supply's current and voltage nodes.
// Texts: gpubusy_accum, gpubusy, clock_mhz, then current/voltage pairs, one per sample.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "plugins/power_sampler.h"
#include "plugins/stats_plugin.h"

namespace {

class Nodes : public emberline::FileReader {
 public:
  explicit Nodes(std::vector<std::string> texts) : texts(std::move(texts)) {}
  std::string ReadFile(std::string path) override { return text_of(path); }
  // An empty text stands for a node the kernel does not have.
  bool Exists(std::string path) override { return !text_of(path).empty(); }

 private:
  std::string text_of(const std::string& path) const {
    const char* names[] = {"gpubusy_accum", "gpubusy", "clock_mhz"};
    for (std::size_t i = 0; i < 3; ++i) {
      if (path.ends_with(std::string("/") + names[i]) && i < texts.size()) return texts[i];
    }
    return {};
  }
  std::vector<std::string> texts;
};

class Stats : public emberline::StatsPlugin {
 public:
  Stats() : StatsPlugin(false, "/nonexistent/cpufreq") {}
};

// A memory stream over `text`; fmemopen refuses an empty buffer, so an empty node gets a NUL.
FILE* stream_over(std::string& text) {
  if (text.empty()) return fmemopen(nullptr, 1, "w+");
  return fmemopen(text.data(), text.size(), "r");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto texts = fuzz::pieces(data, size);
  const auto saved = emberline::file_reader;
  emberline::file_reader = std::make_shared<Nodes>(texts);
  {
    Stats stats;
    for (int tick = 0; tick < 2; ++tick) {
      float util = -1.0f;
      if (stats.get_gpu_utilization(util)) fuzz::check(!std::isnan(util), "no NaN utilisation");
      float freq = -1.0f;
      stats.get_gpu_freq(freq);
    }
  }
  emberline::file_reader = saved;

  emberline::PowerSampler sampler(emberline::PowerPath::BATTERY, false);
  for (std::size_t t = 3; t + 1 < texts.size(); t += 2) {
    const long before_current = sampler.current_raw;
    const long before_voltage = sampler.voltage_raw;
    FILE* current = stream_over(texts[t]);
    FILE* voltage = stream_over(texts[t + 1]);
    if (current == nullptr || voltage == nullptr) std::abort();
    sampler.read_numbers(current, voltage);
    std::fclose(current);
    std::fclose(voltage);
    long expect_current = before_current, expect_voltage = before_voltage;
    std::sscanf(texts[t].c_str(), "%ld", &expect_current);
    std::sscanf(texts[t + 1].c_str(), "%ld", &expect_voltage);
    // A node without a number keeps the previous reading rather than becoming 0.
    fuzz::check(sampler.current_raw == expect_current && sampler.voltage_raw == expect_voltage,
                "numbers as the kernel wrote them, or the previous ones");
    const float watts = emberline::power_from_raw(sampler.current_raw, sampler.voltage_raw);
    fuzz::check(sampler.power_watts == watts, "power from the numbers just read");
  }
  return 0;
}
