#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "plugin.h"
#include "plugins/stats_parsers.h"

namespace emberline {

enum CpuUtilComputeMethod { CPU_TIME = 0, CPU_CYCLES = 1 };

class CpuClusterSection : public Section {
 public:
  CpuClusterSection();

  std::shared_ptr<PercentageValue<3>> avg_util;
  std::shared_ptr<PercentageValue<3>> max_util;
  std::shared_ptr<GigahertzValue<3>> freq;
};

class GpuSection : public Section {
 public:
  GpuSection();

  std::shared_ptr<PercentageValue<3>> util;
  std::shared_ptr<GigahertzValue<3>> freq;
};

// CPU utilisation per core and cluster, cluster frequencies, GPU, screen and battery level, each
// read from the kernel at output time.
class StatsPlugin : public Plugin {
 public:
  explicit StatsPlugin(bool cycle_util);
  ~StatsPlugin() override;
  StatsPlugin(const StatsPlugin&) = delete;
  StatsPlugin& operator=(const StatsPlugin&) = delete;

  bool init() override;
  bool on_output() override;

  using CpuStats = emberline::CpuStats;

  static std::vector<std::pair<int, int>> get_affected_cpus(const std::string& dir);

  bool get_gpu_utilization(float& util);
  bool get_gpu_freq(float& freq);
  bool is_screen_on(bool& on);
  bool get_charge_level(float& level);

 protected:
  // Everything below `cpufreq_dir` stands where the kernel's cpufreq directory does; tests build
  // one of their own.
  StatsPlugin(bool cycle_util, std::string cpufreq_dir);

  bool is_time_in_state_available();
  void set_cluster_section(std::vector<std::shared_ptr<CpuClusterSection>>& cluster_sections,
                           std::vector<std::shared_ptr<PercentageValue<3>>>& core_values,
                           CpuUtilComputeMethod method);

  bool update_cpu_stats(std::vector<std::shared_ptr<CpuClusterSection>>& cluster_sections,
                        std::vector<std::shared_ptr<PercentageValue<3>>>& core_values,
                        CpuStats& stats);
  bool update_cpu_stats_by_cpu_time();
  bool update_cpu_stats_by_cpu_cycles();
  bool update_busy_and_idle_time();

  CpuTopology topology() const { return {clusters, num_cores}; }

  bool (StatsPlugin::*update_fn)() = nullptr;
  int num_cores = 0;
  int num_clusters = 0;
  bool cycle_util_available = false;
  CpuStats time_stats;
  CpuStats cycle_stats;
  std::vector<std::pair<int, int>> clusters;
  std::vector<std::vector<unsigned long>> freq_table;
  std::vector<std::vector<std::pair<unsigned long, unsigned long>>> busy_idle;
  std::vector<std::vector<std::pair<unsigned long, unsigned long>>> prev_busy_idle;
  std::vector<std::vector<unsigned long>> total_time;
  std::vector<std::vector<unsigned long>> prev_total_time;
  std::shared_ptr<SwitchValue> screen_on;
  std::shared_ptr<PercentageValue<3>> battery_level;
  std::shared_ptr<GpuSection> gpu;
  std::vector<std::shared_ptr<CpuClusterSection>> time_cluster_sections;
  std::vector<std::shared_ptr<CpuClusterSection>> cycle_cluster_sections;
  std::vector<std::shared_ptr<PercentageValue<3>>> time_core_values;
  std::vector<std::shared_ptr<PercentageValue<3>>> cycle_core_values;

  // Previous /proc/stat numbers: one row per core, then the summary row. Empty until the first
  // pass, so that the first report covers the time since boot.
  std::vector<std::vector<unsigned long>> prev_rows;

 private:
  std::string cpufreq_dir;
  // Paths by cluster, made once so that a report formats nothing.
  std::vector<std::string> cur_freq_paths;
  std::vector<std::string> time_in_state_paths;

  // Buffers the output path reuses, so that a report allocates nothing for the CPU figures.
  std::string file_text;
  StatsBuffers buffers;

  // The readers' own state, made on their first call (the one from init) and kept for the run.
  struct GpuCounters {
    bool checked_accum = false;
    bool has_accum = false;
    bool checked_busy = false;
    bool has_busy = false;
    long long prev_busy = 0;
    long long prev_total = 0;
  } gpu_counters;
  struct KeptFile {
    bool tried = false;
    std::FILE* file = nullptr;
  };
  KeptFile bl_power, charge_counter, charge_full;
  static std::FILE* open_kept(KeptFile& kept, const char* path);
};

}  // namespace emberline
