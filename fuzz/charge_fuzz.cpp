// One power-supply attribute as the charge plugin reads it: a line cut at its end, then read as
// a number in the unit of its attribute.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "plugins/charge_plugin.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // As fgets leaves it: NUL-terminated, whatever came before.
  std::vector<char> line(data, data + size);
  line.push_back('\0');
  const std::size_t first_end = std::strcspn(line.data(), "\r\n");
  emberline::cut_line_end(line.data());
  fuzz::check(std::strlen(line.data()) == first_end, "cut at the first line end");

  const double raw = std::atof(line.data());
  using T = emberline::SysfsNodeType;
  for (T type :
       {T::STRING, T::PERCENTAGE, T::POWER, T::CURRENT, T::VOLTAGE, T::TEMPERATURE, T::TIME}) {
    const float reading = emberline::sysfs_reading(line.data(), type);
    // Scaling only divides: the sign and NaN-ness of what the kernel wrote are kept.
    fuzz::check(std::isnan(reading) == std::isnan(raw), "NaN only from a NaN");
    if (!std::isnan(raw) && reading != 0) {
      fuzz::check(std::signbit(reading) == std::signbit(raw), "the sign is kept");
    }
    if (std::isfinite(raw) && std::fabs(raw) < 1e30) {
      fuzz::check(std::fabs(reading) <= std::fabs(raw) * 1.0001 + 1e-30, "never scaled up");
    }
  }
  return 0;
}
