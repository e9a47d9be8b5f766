// The runtime's frame statistics in logcat, one text per output tick.

#include <cstdint>

#include "log_stream.h"
#include "plugins/logcat_ravelin_plugin.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::run_windows<emberline::LogcatRavelinPlugin>(data, size, [](auto&) {});
  return 0;
}
