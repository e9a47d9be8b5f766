#include "plugins/dram_samples.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "platform/os/read.h"

namespace emberline::dram {

namespace {

// One tab-separated column in base 16, read as the driver's tools read it: leading blanks and a
// "0x" are allowed, and the number ends at the first character that is no digit.
bool parse_hex(std::string_view piece, unsigned long& out) {
  std::size_t start = piece.find_first_not_of(" \n\r\f\v");
  if (start == std::string_view::npos) return false;
  piece.remove_prefix(start);
  if (piece.size() > 2 && piece[0] == '0' && (piece[1] == 'x' || piece[1] == 'X')) {
    piece.remove_prefix(2);
  }
  auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), out, 16);
  return error == std::errc() && end != piece.data();
}

bool parse_line(std::string_view line, Sample& sample) {
  std::size_t column = 0;
  while (column < sample.size() && !line.empty()) {
    std::size_t tab = line.find('\t');
    std::string_view piece = line.substr(0, tab);
    line.remove_prefix(tab == std::string_view::npos ? line.size() : tab + 1);
    // Runs of tabs count as one separator.
    if (piece.empty()) continue;
    if (!parse_hex(piece, sample[column])) return false;
    ++column;
  }
  return column == sample.size();
}

BandwidthStats reduce(std::span<const Sample> samples, bool signed_division) {
  BandwidthStats stats;
  if (samples.empty()) return stats;
  auto low = [](unsigned long number) { return static_cast<std::uint32_t>(number); };

  std::uint32_t n = static_cast<std::uint32_t>(samples.size());
  std::uint32_t used_sum = 0, avail_sum = 0, ddr_sum = 0;
  stats.minimum = stats.maximum = low(samples[0][1]);
  stats.ddr_minimum = stats.ddr_maximum = low(samples[0][3]);
  for (const Sample& s : samples) {
    used_sum += low(s[1]);
    avail_sum += low(s[2]);
    ddr_sum += low(s[3]);
    stats.minimum = std::min(stats.minimum, low(s[1]));
    stats.maximum = std::max(stats.maximum, low(s[1]));
    stats.ddr_minimum = std::min(stats.ddr_minimum, low(s[3]));
    stats.ddr_maximum = std::max(stats.ddr_maximum, low(s[3]));
  }

  if (signed_division) {
    auto as_signed = [](std::uint32_t v) { return static_cast<std::int32_t>(v); };
    std::int32_t mean = as_signed(used_sum) / as_signed(n);
    std::int32_t avail = as_signed(avail_sum) / as_signed(n);
    stats.mean = static_cast<std::uint32_t>(mean);
    stats.available = static_cast<std::uint32_t>(avail);
    stats.utilisation = static_cast<float>(mean) / static_cast<float>(avail);
  } else {
    stats.mean = used_sum / n;
    stats.available = avail_sum / n;
    stats.ddr_mean = ddr_sum / n;
    stats.utilisation = static_cast<float>(stats.mean) / static_cast<float>(stats.available);
  }

  double squares = 0;
  for (const Sample& s : samples) {
    std::uint32_t difference = low(s[1]) - stats.mean;
    squares += static_cast<double>(static_cast<std::int32_t>(difference * difference));
  }
  stats.samples = n;
  stats.stddev = std::sqrt(squares / n);
  return stats;
}

}  // namespace

void parse_samples(std::string_view text, std::vector<Sample>& out) {
  os::for_each_line(text, [&out](std::string_view line) {
    Sample sample{};
    if (!line.empty() && parse_line(line, sample)) out.push_back(sample);
  });
}

BandwidthStats client_stats(std::span<const Sample> samples) {
  return reduce(samples, true);
}
BandwidthStats total_stats(std::span<const Sample> samples) {
  return reduce(samples, false);
}

}  // namespace emberline::dram
