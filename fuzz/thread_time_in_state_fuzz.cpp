// A thread's time_in_state under /proc, as the credit model reads it for every thread at every
// tick: two texts, the thread's file at two snapshots, and the difference the model takes. The
// parser takes the file in the pieces its reads give; it must count exactly what a read of the
// same text line by line into a buffer of 1024 characters, with sscanf, counts.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <string_view>

#include "ar_sys_stats/ar_sys_stats.h"
#include "fuzz_input.h"

namespace {

// The plain way: std::istream::getline and sscanf, the counts kept apart from the parser's.
void count_by_lines(const std::string& text, ArSysStats::ClusterMap<long>& time,
                    ArSysStats::ClusterMap<long>& cycles) {
  std::istringstream in(text);
  int cluster = -1;
  char line[ArSysStats::TimeInStateParser::kLineBuffer];
  while (in.getline(line, sizeof line)) {
    if (line[0] == 'c' && line[1] == 'p' && line[2] == 'u') {
      cluster = line[3] - '0';
      continue;
    }
    long freq = 0, ticks = 0;
    std::sscanf(line, "%ld%ld", &freq, &ticks);
    time[cluster] = static_cast<long>(static_cast<unsigned long>(time[cluster]) +
                                      static_cast<unsigned long>(ticks));
    cycles[cluster] =
        static_cast<long>(static_cast<unsigned long>(cycles[cluster]) +
                          static_cast<unsigned long>(ticks) * static_cast<unsigned long>(freq));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto texts = fuzz::pieces(data, size);
  const std::string& text = texts[0];
  // Reads of a node give it in pieces; the input's first byte picks their size.
  const std::size_t piece = size == 0 ? 1 : 1 + data[0] % 64;
  for (bool per_freq : {false, true}) {
    ArSysStats::ProcStats snapshots[2];
    for (std::size_t s = 0; s < 2; ++s) {
      const std::string& file = texts[std::min(s, texts.size() - 1)];
      ArSysStats::TimeInStateParser parser(&snapshots[s], per_freq);
      for (std::size_t at = 0; at < file.size(); at += piece) {
        if (!parser.feed(std::string_view(file).substr(at, piece))) break;
      }
      parser.finish();
      ArSysStats::ClusterMap<long> time, cycles;
      count_by_lines(file, time, cycles);
      fuzz::check(snapshots[s].time_per_cluster == time, "times as a line-by-line read");
      fuzz::check(snapshots[s].cycles_per_cluster == cycles, "cycles as a line-by-line read");
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
  ArSysStats::scanTwoLongs(first_line, &first, &second);
  long first_again = -7, second_again = -7;
  const int read = std::sscanf(first_line.c_str(), "%ld%ld", &first_again, &second_again);
  fuzz::check(read < 1 || first == first_again, "first number as sscanf reads it");
  fuzz::check(read < 2 || second == second_again, "second number as sscanf reads it");
  fuzz::check(read >= 1 || (first == -7 && second == -7), "nothing stored without a number");
  return 0;
}
