#include "plugins/stats_parsers.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "platform/os/read.h"

namespace emberline {

namespace {

// The columns of a /proc/stat CPU row; kernels older than the last two columns give fewer.
constexpr std::size_t kStatColumns = 10;
// No kernel configures more CPUs than this; a larger "core" number is garbage, not a cluster.
constexpr int kMaxCores = 8192;

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// Whole decimal int of `text`, where core numbers are expected.
std::optional<int> parse_core(std::string_view text) {
  if (text.empty() || !std::all_of(text.begin(), text.end(), is_digit)) return std::nullopt;
  int value = 0;
  for (char c : text) {
    value = value * 10 + (c - '0');
    if (value >= kMaxCores) return std::nullopt;
  }
  return value;
}

// Differences wrap rather than overflow on counters that went backwards.
long long wrapping_difference(long long now, long long before) {
  return static_cast<long long>(static_cast<unsigned long long>(now) -
                                static_cast<unsigned long long>(before));
}

}  // namespace

void CpuStats::clear() {
  std::fill(core_util.begin(), core_util.end(), 0.0f);
  std::fill(cluster_avg_util.begin(), cluster_avg_util.end(), 0.0f);
  std::fill(cluster_max_util.begin(), cluster_max_util.end(), 0.0f);
}

int CpuTopology::cluster_of(int core) const {
  for (std::size_t c = 0; c < clusters.size(); ++c) {
    if (clusters[c].first <= core && core <= clusters[c].second) return static_cast<int>(c);
  }
  return -1;
}

std::string get_first_word(std::string& line) {
  std::string word;
  const std::size_t blank = line.find(' ');
  if (blank != std::string::npos) {
    word.assign(line, 0, blank);
    line.erase(0, blank + 1);
    const std::size_t digit = line.find_first_of("0123456789");
    if (digit != std::string::npos) line.erase(0, digit);
  }
  if (word.empty() && !line.empty()) {
    word = line;
    line.clear();
  }
  return word;
}

void get_cpu_stat(std::string& line, std::vector<unsigned long>& numbers) {
  numbers.clear();
  while (!line.empty()) {
    const std::string word = get_first_word(line);
    // strtoull reads a number as stoull does, but says so instead of throwing when none is there.
    errno = 0;
    char* end = nullptr;
    const unsigned long long number = std::strtoull(word.c_str(), &end, 10);
    if (end == word.c_str() || errno == ERANGE) continue;
    numbers.push_back(number);
  }
}

std::vector<unsigned long> get_cpu_stat(std::string& line) {
  std::vector<unsigned long> numbers;
  get_cpu_stat(line, numbers);
  return numbers;
}

std::optional<std::pair<int, int>> parse_affected_cpus(std::string_view text) {
  const std::string_view line = os::trim_end(text.substr(0, text.find('\n')));
  const std::size_t first_blank = line.find(' ');
  const std::size_t last_blank = line.rfind(' ');
  const auto first = parse_core(line.substr(0, first_blank));
  const auto last =
      parse_core(last_blank == std::string_view::npos ? line : line.substr(last_blank + 1));
  if (!first || !last || *first > *last) return std::nullopt;
  return std::pair{*first, *last};
}

void account_proc_stat(std::string_view text, const CpuTopology& topology, CpuCounters& prev_rows,
                       CpuStats& stats, StatsBuffers& buffers) {
  const int num_cores = topology.num_cores;
  if (prev_rows.empty()) {
    prev_rows.assign(static_cast<std::size_t>(num_cores) + 1,
                     std::vector<unsigned long>(kStatColumns, 0));
  }
  stats.clear();
  std::string& line = buffers.line;
  std::vector<unsigned long>& row = buffers.row;

  os::for_each_line(text, [&](std::string_view text_line) {
    line.assign(text_line);
    const std::string word = get_first_word(line);
    if (word.size() < 3 || word.compare(0, 3, "cpu") != 0) return;
    int index = num_cores;
    const auto digit = std::find_if(word.begin(), word.end(), is_digit);
    if (digit != word.end()) {
      // A core the topology did not find at start-up (one that came online since, or a garbled
      // number) has nowhere to keep its counters, so its row is passed over.
      int number = 0;
      for (auto it = digit; it != word.end() && is_digit(*it); ++it) {
        number = number * 10 + (*it - '0');
        if (number >= num_cores) return;
      }
      index = number;
    }
    get_cpu_stat(line, row);
    // Counters a kernel does not have yet count as 0.
    row.resize(kStatColumns, 0);
    std::vector<unsigned long>& prev = prev_rows[static_cast<std::size_t>(index)];
    std::uint32_t idle = 0;
    std::uint32_t total = 0;
    for (std::size_t k = 0; k < kStatColumns; ++k) {
      // The kernel's counters are 32 bits wide on some builds; the low halves wrap alike.
      const std::uint32_t d =
          static_cast<std::uint32_t>(row[k]) - static_cast<std::uint32_t>(prev[k]);
      total += d;
      if (k == 3 || k == 4) idle += d;
    }
    const float util = 1.0f - static_cast<float>(static_cast<std::int32_t>(idle)) /
                                  static_cast<float>(static_cast<std::int32_t>(total));
    if (index < num_cores) {
      stats.core_util[static_cast<std::size_t>(index)] = util;
      // A core in no cluster still reports its own figure.
      const int c = topology.cluster_of(index);
      if (c >= 0) {
        stats.cluster_avg_util[static_cast<std::size_t>(c)] += util;
        float& max = stats.cluster_max_util[static_cast<std::size_t>(c)];
        max = std::fmax(max, util);
      }
    }
    std::copy(row.begin(), row.begin() + kStatColumns, prev.begin());
  });

  for (std::size_t c = 0; c < topology.clusters.size(); ++c) {
    stats.cluster_avg_util[c] /=
        static_cast<float>(topology.clusters[c].second - topology.clusters[c].first + 1);
  }
}

bool add_frequency_weights(std::string_view text, const CpuTopology& topology, int cluster,
                           unsigned long tick_rate, CpuCounters& freq_table, CpuBusyIdle& busy_idle,
                           CpuCounters& total_time) {
  std::vector<unsigned long> weights;
  std::string line;
  std::vector<unsigned long> row;
  bool extended = true;
  os::for_each_line(text, [&](std::string_view text_line) {
    line.assign(text_line);
    get_cpu_stat(line, row);
    // Two numbers are the kernel's plain format; a row without numbers has no frequency to
    // weigh. A file without rows passes: its cores then count nothing, and read as not a number.
    if (row.size() == 2 || row.empty()) {
      extended = false;
      return false;
    }
    weights.push_back(row[0] / tick_rate);
    return true;
  });
  if (!extended) return false;
  // A core outside the tables, or one that an earlier cluster already holds, has no row here.
  const auto [first, last] = topology.clusters[static_cast<std::size_t>(cluster)];
  for (int core = first; core <= last && core < topology.num_cores; ++core) {
    if (topology.cluster_of(core) != cluster) continue;
    total_time[static_cast<std::size_t>(core)].assign(weights.size(), 0);
    busy_idle[static_cast<std::size_t>(core)].assign(weights.size(), {0, 0});
  }
  freq_table.push_back(std::move(weights));
  return true;
}

bool parse_time_in_state(std::string_view text, const CpuTopology& topology, int cluster,
                         const CpuCounters& freq_table, CpuBusyIdle& busy_idle,
                         CpuCounters& total_time, StatsBuffers& buffers) {
  if (cluster < 0 || static_cast<std::size_t>(cluster) >= freq_table.size() ||
      static_cast<std::size_t>(cluster) >= topology.clusters.size()) {
    return false;
  }
  // Two variables, not a structured binding: clang before 16 cannot capture one in the lambda.
  const int first = topology.clusters[static_cast<std::size_t>(cluster)].first;
  const int last = topology.clusters[static_cast<std::size_t>(cluster)].second;
  const std::size_t size = static_cast<std::size_t>(last - first + 1);
  const std::size_t rows = freq_table[static_cast<std::size_t>(cluster)].size();
  std::string& line = buffers.line;
  std::vector<unsigned long>& row = buffers.row;
  std::size_t j = 0;
  bool ok = true;
  os::for_each_line(text, [&](std::string_view text_line) {
    // Rows a frequency table gained after start-up have no weight, and are left out rather
    // than end the run.
    if (j >= rows) return false;
    line.assign(text_line);
    get_cpu_stat(line, row);
    if (row.size() != 4 + 2 * size) {
      ok = false;
      return false;
    }
    for (std::size_t k = 0; k < size; ++k) {
      const int core = first + static_cast<int>(k);
      if (core >= topology.num_cores || topology.cluster_of(core) != cluster) continue;
      busy_idle[static_cast<std::size_t>(core)][j] = {row[4 + 2 * k], row[5 + 2 * k]};
      total_time[static_cast<std::size_t>(core)][j] = row[1];
    }
    ++j;
    return true;
  });
  return ok;
}

void cycle_utilisation(const CpuTopology& topology, const CpuCounters& freq_table,
                       const CpuBusyIdle& busy_idle, const CpuBusyIdle& prev_busy_idle,
                       const CpuCounters& total_time, const CpuCounters& prev_total_time,
                       CpuStats& stats, StatsBuffers& buffers) {
  const std::size_t num_clusters = topology.clusters.size();
  std::vector<unsigned long>& cluster_busy = buffers.cluster_busy;
  std::vector<unsigned long>& cluster_idle = buffers.cluster_idle;
  std::vector<unsigned long>& cluster_other = buffers.cluster_other;
  cluster_busy.assign(num_clusters, 0);
  cluster_idle.assign(num_clusters, 0);
  cluster_other.assign(num_clusters, 0);
  stats.clear();

  for (int core = 0; core < topology.num_cores; ++core) {
    const int c = topology.cluster_of(core);
    // Without a cluster there are no frequency weights; the core reads 0.
    if (c < 0) continue;
    const auto& now = busy_idle[static_cast<std::size_t>(core)];
    const auto& prev = prev_busy_idle[static_cast<std::size_t>(core)];
    const auto& now_total = total_time[static_cast<std::size_t>(core)];
    const auto& prev_total = prev_total_time[static_cast<std::size_t>(core)];
    const auto& weights = freq_table[static_cast<std::size_t>(c)];
    unsigned long busy = 0;
    unsigned long idle = 0;
    unsigned long other = 0;
    for (std::size_t j = 0; j < now.size() && j < weights.size(); ++j) {
      const unsigned long db = now[j].first - prev[j].first;
      const unsigned long di = now[j].second - prev[j].second;
      const unsigned long dt = now_total[j] - prev_total[j];
      const unsigned long w = weights[j];
      busy += db * w;
      idle += di * w;
      other += (dt - db - di) * w;
    }
    const double util = 1.0 - static_cast<double>(idle) / static_cast<double>(busy + idle + other);
    stats.core_util[static_cast<std::size_t>(core)] = static_cast<float>(util);
    float& max = stats.cluster_max_util[static_cast<std::size_t>(c)];
    max = static_cast<float>(std::fmax(static_cast<double>(max), util));
    cluster_busy[static_cast<std::size_t>(c)] += busy;
    cluster_idle[static_cast<std::size_t>(c)] += idle;
    cluster_other[static_cast<std::size_t>(c)] += other;
  }
  for (std::size_t c = 0; c < num_clusters; ++c) {
    // A ratio of the cluster's cycle sums, so that a core that ran faster weighs more.
    stats.cluster_avg_util[c] = static_cast<float>(
        1.0 - static_cast<double>(cluster_idle[c]) /
                  static_cast<double>(cluster_busy[c] + cluster_idle[c] + cluster_other[c]));
  }
}

GpuBusy parse_gpu_busy(const std::string& text) {
  GpuBusy counts;
  std::sscanf(text.c_str(), "%lld %lld", &counts.busy, &counts.total);
  return counts;
}

GpuBusy gpu_busy_since(const GpuBusy& now, const GpuBusy& before) {
  return {wrapping_difference(now.busy, before.busy), wrapping_difference(now.total, before.total)};
}

std::optional<float> gpu_busy_share(const GpuBusy& counts) {
  const float share =
      static_cast<float>(static_cast<double>(counts.busy) / static_cast<double>(counts.total));
  if (std::isnan(share)) return std::nullopt;
  return share;
}

float gpu_clock_ghz(const std::string& text) {
  long mhz = 0;
  std::sscanf(text.c_str(), "%ld", &mhz);
  return static_cast<float>(mhz) / 1000.0f;
}

}  // namespace emberline
