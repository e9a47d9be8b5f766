// The tracking service's DSP telemetry in logcat, one text per output tick.

#include <cmath>
#include <cstdint>
#include <memory>

#include "log_stream.h"
#include "plugins/logcat_dsp_plugin.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::run_windows<emberline::LogcatDspPlugin>(data, size, [](auto& plugin) {
    // Every figure comes from digits alone, without a sign, and a number no float takes makes
    // its line count for nothing.
    for (const auto& [key, entry] : plugin.values) {
      const auto value = std::dynamic_pointer_cast<emberline::Value<float>>(entry.first);
      fuzz::check(value != nullptr, "every DSP field is a number");
      if (value->is_null) continue;
      fuzz::check(std::isfinite(value->value) && value->value >= 0, "finite, never negative");
    }
  });
  return 0;
}
