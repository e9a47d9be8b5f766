// A bandwidth monitor's sample list, read at every sample tick, and the statistics over it.

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "plugins/dram_samples.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace dram = emberline::dram;
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<dram::Sample> samples;
  dram::parse_samples(text, samples);
  std::size_t lines = 0;
  for (char c : text) lines += c == '\n';
  fuzz::check(samples.size() <= lines + 1, "at most one sample per line");

  // The samples written back the way the driver writes them read the same.
  std::string again;
  for (const dram::Sample& s : samples) {
    char line[96];
    std::snprintf(line, sizeof line, "%lx\t%lx\t%lx\t%lx\n", s[0], s[1], s[2], s[3]);
    again += line;
  }
  std::vector<dram::Sample> reread;
  dram::parse_samples(again, reread);
  fuzz::check(reread == samples, "samples survive being written back");

  for (const dram::BandwidthStats& stats :
       {dram::client_stats(samples), dram::total_stats(samples)}) {
    fuzz::check(stats.samples == static_cast<std::uint32_t>(samples.size()), "sample count");
    if (samples.empty()) continue;
    fuzz::check(stats.minimum <= stats.maximum, "minimum below maximum");
    fuzz::check(stats.ddr_minimum <= stats.ddr_maximum, "DDR minimum below maximum");
  }
  // Without a wrap of the 32-bit sum, the total's mean lies between its extremes.
  std::uint64_t sum = 0;
  for (const dram::Sample& s : samples) sum += static_cast<std::uint32_t>(s[1]);
  if (!samples.empty() && sum <= UINT32_MAX) {
    const dram::BandwidthStats total = dram::total_stats(samples);
    fuzz::check(total.minimum <= total.mean && total.mean <= total.maximum, "mean in range");
  }
  return 0;
}
