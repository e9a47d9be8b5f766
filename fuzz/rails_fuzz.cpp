// Rail nodes: Brantley's industrial I/O `available_rails` and `average_value` lines, and Quillon's
// powercap entry names and power_uw lines. Every line of the input goes through each parser.

#include <cmath>
#include <cstdint>
#include <string>

#include "fuzz_input.h"
#include "plugins/power_rails_plugin.h"
#include "plugins/quillon_power_rails_plugin.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;

    if (const auto rail = emberline::parse_available_rail(line)) {
      fuzz::check(!rail->first.empty() && !rail->second.empty(), "id and rail both named");
      fuzz::check(
          rail->first.find(':') == std::string::npos && rail->second.find(':') == std::string::npos,
          "no separator inside a name");
    }
    if (const auto average = emberline::parse_rail_average(line)) {
      fuzz::check(!average->first.empty() && average->first.find(',') == std::string::npos,
                  "a rail id without separator");
      // Two ints in millionths: well inside what a float holds.
      fuzz::check(std::isfinite(average->second), "finite watts");
    }

    const std::string ending = emberline::rail_ending(line);
    if (!ending.empty()) {
      fuzz::check(line.ends_with(ending), "the ending is the entry's tail");
      fuzz::check(ending.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos,
                  "a hexadecimal ending");
    }
    if (const auto watts = emberline::microwatts_to_watts(line)) {
      fuzz::check(!std::isfinite(*watts) || std::fabs(*watts) <= 3.5e32f, "scaled to watts");
    }
  }
  return 0;
}
