// The GPU's kgsl nodes (busy counters and clock) and a supply's current and voltage nodes.
// Texts: gpubusy_accum, gpubusy, clock_mhz, then current/voltage pairs, one per sample.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "plugins/power_sampler.h"
#include "plugins/stats_parsers.h"

namespace {

// A memory stream over `text`; fmemopen refuses an empty buffer, so an empty node gets a NUL.
FILE* stream_over(std::string& text) {
  if (text.empty()) return fmemopen(nullptr, 1, "w+");
  return fmemopen(text.data(), text.size(), "r");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto texts = fuzz::pieces(data, size);
  // An empty text stands for a node the kernel does not have.
  texts.resize(std::max<std::size_t>(texts.size(), 3));
  const emberline::GpuBusy accum = emberline::parse_gpu_busy(texts[0]);
  fuzz::check(!emberline::gpu_busy_share(emberline::gpu_busy_since(accum, accum)),
              "counters that did not move give no share");
  for (const auto& counts :
       {emberline::gpu_busy_since(accum, {}), emberline::parse_gpu_busy(texts[1])}) {
    if (const auto share = emberline::gpu_busy_share(counts)) {
      fuzz::check(!std::isnan(*share), "no NaN utilisation");
    }
  }
  fuzz::check(std::isfinite(emberline::gpu_clock_ghz(texts[2])), "a clock of finite gigahertz");

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
