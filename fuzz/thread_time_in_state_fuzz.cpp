// A thread's time_in_state under /proc, as the credit model reads it for every thread at every
// tick.

#include <cstdint>
#include <sstream>
#include <string>

#include "ar_sys_stats/ar_sys_stats.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (bool per_freq : {false, true}) {
    std::istringstream in(text);
    ArSysStats::ProcStats stats;
    ArSysStats::parseTimeInState(in, &stats, per_freq);
    // Only "cpuN" lines name clusters, so there are never more clusters than such lines, and
    // both maps see the same ones.
    fuzz::check(stats.time_per_cluster.size() == stats.cycles_per_cluster.size(),
                "times and cycles cover the same clusters");
    fuzz::check(per_freq || stats.time_per_freq.empty(), "frequencies only when asked for");
  }

  // What sscanf would store: nothing over a number it cannot read.
  const std::string first_line = text.substr(0, text.find('\n'));
  long first = -7, second = -7;
  ArSysStats::scanTwoLongs(first_line.c_str(), &first, &second);
  long first_again = -7, second_again = -7;
  const int read = std::sscanf(first_line.c_str(), "%ld%ld", &first_again, &second_again);
  fuzz::check(read < 1 || first == first_again, "first number as sscanf reads it");
  fuzz::check(read < 2 || second == second_again, "second number as sscanf reads it");
  fuzz::check(read >= 1 || (first == -7 && second == -7), "nothing stored without a number");
  return 0;
}
