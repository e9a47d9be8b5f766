#pragma once

// What the stats plugin makes of the text of its nodes, apart from the reading: pure functions of
// text and of the tables they fill, so that they run on any text. The buffers a caller passes in
// are reused from call to call, so that a report allocates nothing once they have grown.

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace emberline {

// By core (or cluster), by frequency row.
using CpuCounters = std::vector<std::vector<unsigned long>>;
using CpuBusyIdle = std::vector<std::vector<std::pair<unsigned long, unsigned long>>>;

struct CpuStats {
  CpuStats() = default;
  CpuStats(unsigned int num_clusters, unsigned int num_cores)
      : core_util(num_cores, 0.0f),
        cluster_avg_util(num_clusters, 0.0f),
        cluster_max_util(num_clusters, 0.0f) {}
  // Every figure back to 0, the sizes kept.
  void clear();

  std::vector<float> core_util;
  std::vector<float> cluster_avg_util;
  std::vector<float> cluster_max_util;
};

// The clusters found at start-up, first and last core of each in ascending order, and the number
// of cores the tables by core hold.
struct CpuTopology {
  std::span<const std::pair<int, int>> clusters;
  int num_cores = 0;

  // Index of the first cluster holding `core`, or -1.
  int cluster_of(int core) const;
};

struct StatsBuffers {
  std::string line;
  std::vector<unsigned long> row;
  std::vector<unsigned long> cluster_busy, cluster_idle, cluster_other;
};

// First word of `line`, split at the first blank (a tab is no separator); `line` keeps the rest,
// starting at its first digit when it has one.
std::string get_first_word(std::string& line);

// Every number of `line`, which is consumed. A word that holds no number (or one past 64 bits)
// is left out rather than read as 0, so that a stray word shows as a short row.
std::vector<unsigned long> get_cpu_stat(std::string& line);
void get_cpu_stat(std::string& line, std::vector<unsigned long>& numbers);

// First and last core of an `affected_cpus` node's first line. None for a line without two valid
// numbers in ascending order, such as the empty line of a policy whose cores are all offline.
std::optional<std::pair<int, int>> parse_affected_cpus(std::string_view text);

// The time-based pass over the text of /proc/stat into `stats`: each core's ticks since the
// numbers in `prev_rows`, which the pass replaces. `prev_rows` holds a row per core and then the
// summary row's; the first pass makes it, so that its figures cover the time since boot.
void account_proc_stat(std::string_view text, const CpuTopology& topology, CpuCounters& prev_rows,
                       CpuStats& stats, StatsBuffers& buffers);

// At start-up: the frequency weights of cluster `cluster` from its time_in_state text, each row's
// frequency over the tick rate, appended to `freq_table`, and the cluster's rows of the tables by
// core (which hold a row per core) sized to them. False for the kernel's plain format, two
// numbers a row, or a row without numbers.
bool add_frequency_weights(std::string_view text, const CpuTopology& topology, int cluster,
                           unsigned long tick_rate, CpuCounters& freq_table, CpuBusyIdle& busy_idle,
                           CpuCounters& total_time);

// One reading of cluster `cluster`'s time_in_state into the tables by core, which have the sizes
// that `freq_table` gave them at start-up. False when a row does not hold 4 + 2 × (cluster size)
// numbers, or the cluster has no weights.
bool parse_time_in_state(std::string_view text, const CpuTopology& topology, int cluster,
                         const CpuCounters& freq_table, CpuBusyIdle& busy_idle,
                         CpuCounters& total_time, StatsBuffers& buffers);

// The cycle-based figures between two readings of the time_in_state tables: each row's busy,
// idle and other time weighed by its frequency.
void cycle_utilisation(const CpuTopology& topology, const CpuCounters& freq_table,
                       const CpuBusyIdle& busy_idle, const CpuBusyIdle& prev_busy_idle,
                       const CpuCounters& total_time, const CpuCounters& prev_total_time,
                       CpuStats& stats, StatsBuffers& buffers);

// Busy and total of a kgsl busy node, as "%lld %lld" reads them: a number the text lacks is 0.
struct GpuBusy {
  long long busy = 0;
  long long total = 0;
};
GpuBusy parse_gpu_busy(const std::string& text);

// How far the counters moved since `before`.
GpuBusy gpu_busy_since(const GpuBusy& now, const GpuBusy& before);

// busy / total; none when that is not a number, as 0 / 0 is. An infinite share counts.
std::optional<float> gpu_busy_share(const GpuBusy& counts);

// Gigahertz of a clock_mhz text, read as "%ld" megahertz: 0 without a number.
float gpu_clock_ghz(const std::string& text);

}  // namespace emberline
