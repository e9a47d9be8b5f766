// A thread's time_in_state under /proc, as the credit model reads it for every thread at every
// tick: two texts, the thread's file at two snapshots, and the difference the model takes.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>

#include "ar_sys_stats/ar_sys_stats.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto texts = fuzz::pieces(data, size);
  const std::string& text = texts[0];
  for (bool per_freq : {false, true}) {
    ArSysStats::ProcStats snapshots[2];
    for (std::size_t s = 0; s < 2; ++s) {
      std::istringstream in(texts[std::min(s, texts.size() - 1)]);
      ArSysStats::parseTimeInState(in, &snapshots[s], per_freq);
      // Both maps see the same clusters: every counted line adds to both.
      fuzz::check(snapshots[s].time_per_cluster.size() == snapshots[s].cycles_per_cluster.size(),
                  "times and cycles cover the same clusters");
      fuzz::check(per_freq || snapshots[s].time_per_freq.empty(),
                  "frequencies only when asked for");
    }
    snapshots[0].pid = 1;
    const auto delta = ArSysStats::procStatsDelta(snapshots[0], snapshots[1], {});
    fuzz::check(delta.cycles_per_cluster.size() == snapshots[1].cycles_per_cluster.size(),
                "a difference for each later cluster");
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
