// The command line. The first byte picks the device (bit 0 Brantley, bit 1 Quillon's chipset),
// since each adds options of its own; the rest is the arguments, separated by NULs.

#include <cstdint>
#include <string>
#include <vector>

#include "command_line.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool brantley = (data[0] & 1) != 0;
  const bool chipset2 = (data[0] & 2) != 0;
  const auto arguments = fuzz::pieces(data + 1, size - 1);
  std::vector<const char*> argv{"emberline"};
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());

  emberline::Settings settings;
  const auto exit_code = emberline::parse_command_line(static_cast<int>(argv.size()), argv.data(),
                                                       settings, brantley, chipset2);
  if (exit_code) return 0;
  // A run goes ahead only with settings it can work with.
  fuzz::check(settings.sample_period_ms <= settings.output_period_ms, "sample within output");
  fuzz::check(!chipset2 || settings.quillon_dram_ms >= 1, "a DRAM period");
  if (settings.ignore_error) return 0;
  fuzz::check(settings.time_s <= 36000, "time in range");
  fuzz::check(settings.sample_period_ms >= 10 && settings.output_period_ms <= 100000000,
              "rates in range");
  fuzz::check(settings.window_size >= 1 && settings.window_size <= 1000, "window in range");
  fuzz::check(settings.exp_smooth >= 0.0f && settings.exp_smooth <= 1.0f, "alpha in range");
  fuzz::check(!chipset2 || settings.quillon_dram_ms <= 10000, "DRAM period in range");
  return 0;
}
