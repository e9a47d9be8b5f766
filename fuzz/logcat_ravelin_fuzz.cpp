// The runtime's frame statistics in logcat, one text per output tick.

#include <cmath>
#include <cstdint>

#include "fuzz_input.h"
#include "log_stream.h"
#include "plugins/logcat_ravelin_plugin.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto windows = fuzz::pieces(data, size);
  const std::size_t ticks = windows.size();
  fuzz::FromText<emberline::LogcatRavelinPlugin> plugin(std::move(windows));
  plugin.init();
  for (std::size_t t = 0; t < ticks; ++t) {
    plugin.on_output();
    // The window's stamp goes into a shell command between single quotes: nothing from the log
    // may close them.
    std::size_t quotes = 0;
    for (char c : plugin.last_command) quotes += c == '\'';
    fuzz::check(quotes == 2, "the stamp stays inside its quotes");
  }
  return 0;
}
