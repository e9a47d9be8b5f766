#pragma once

// A bandwidth monitor's sample list and the statistics the DRAM bandwidth plugin makes of it,
// apart from the reading, so that they run on any text.

#include <array>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace emberline::dram {

// One line of a monitor's sample list: unused, used MB/s, available MB/s, DDR MHz.
using Sample = std::array<unsigned long, 4>;

// Appends the samples of `text` to `out`. Lines without four hexadecimal columns are skipped, so
// that a driver's stray line costs one sample rather than the tick. Allocates only when `out`
// has to grow past its capacity.
void parse_samples(std::string_view text, std::vector<Sample>& out);

// The driver's numbers are 32-bit: sums wrap there and the deviation squares there, so the
// statistics do the same to match what the driver's own tools report.
struct BandwidthStats {
  std::uint32_t samples = 0;
  std::uint32_t mean = 0;
  std::uint32_t minimum = 0;
  std::uint32_t maximum = 0;
  std::uint32_t available = 0;
  std::uint32_t ddr_mean = 0;
  std::uint32_t ddr_minimum = 0;
  std::uint32_t ddr_maximum = 0;
  double stddev = 0;
  float utilisation = 0;
};

// The CPU and GPU monitors divide as signed numbers, the total monitor as unsigned ones. An empty
// list gives zero samples and nothing else.
BandwidthStats client_stats(std::span<const Sample> samples);
BandwidthStats total_stats(std::span<const Sample> samples);

}  // namespace emberline::dram
