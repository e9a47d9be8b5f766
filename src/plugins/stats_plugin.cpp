#include "plugins/stats_plugin.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <limits>

#include "platform/os/node.h"
#include "platform/os/read.h"

namespace emberline {

namespace {

const char* const kCpufreqDir = "/sys/devices/system/cpu/cpufreq";
const char* const kProcStat = "/proc/stat";
const char* const kGpuBusyAccum = "/sys/class/kgsl/kgsl-3d0/gpubusy_accum";
const char* const kGpuBusy = "/sys/class/kgsl/kgsl-3d0/gpubusy";
const char* const kGpuClock = "/sys/class/kgsl/kgsl-3d0/clock_mhz";
const char* const kBlPower = "/sys/class/backlight/panel0-backlight/bl_power";
const char* const kChargeCounter = "/sys/class/power_supply/battery/charge_counter";
const char* const kChargeFull = "/sys/class/power_supply/battery/charge_full";

// Bounds what a garbled sysfs node can make the output path read.
constexpr std::size_t kMaxFileBytes = 1 << 20;
// A frequency in kHz and its line end fit many times over.
constexpr std::size_t kCurFreqBytes = 63;

void warn(const char* text) {
  std::cerr << text << std::endl;
}

// x86 makes 0 / 0 a NaN with the sign bit set, where the headset's ARM cores make it positive;
// a figure without a tick reads "nan" on both.
float published(float value) {
  return std::isnan(value) ? std::numeric_limits<float>::quiet_NaN() : value;
}

// The kHz number of a cpuinfo_cur_freq node, 0 when it holds none, also when its read fails.
// Opened and closed on each use: a cluster's policy can come and go with hotplug. None if it
// cannot be opened.
std::optional<long> read_cur_freq(const std::string& path, std::string& text) {
  if (os::read_node(path, text, kCurFreqBytes) == os::NodeRead::kUnopened) return std::nullopt;
  return std::strtol(text.c_str(), nullptr, 10);
}

}  // namespace

CpuClusterSection::CpuClusterSection()
    : avg_util(std::make_shared<PercentageValue<3>>()),
      max_util(std::make_shared<PercentageValue<3>>()),
      freq(std::make_shared<GigahertzValue<3>>()) {
  add_value("freq", freq, FieldOptions("Frequency (in Gigahertz) for all cores in this cluster"));
  add_value("avg_util", avg_util,
            FieldOptions("Average utilization across all cores in this cluster", "avg"));
  add_value("max_util", max_util,
            FieldOptions("Max utilization across all cores in this cluster", "max"));
}

GpuSection::GpuSection()
    : util(std::make_shared<PercentageValue<3>>()), freq(std::make_shared<GigahertzValue<3>>()) {
  add_value("freq", freq, FieldOptions("GPU frequency (in Gigahertz)"));
  add_value("util", util, FieldOptions("GPU utilization percentage", "util"));
}

StatsPlugin::StatsPlugin(bool cycle_util) : StatsPlugin(cycle_util, kCpufreqDir) {}

StatsPlugin::StatsPlugin(bool cycle_util, std::string dir) : cpufreq_dir(std::move(dir)) {
  clusters = get_affected_cpus(cpufreq_dir);
  screen_on = std::make_shared<SwitchValue>();
  battery_level = std::make_shared<PercentageValue<3>>();
  gpu = std::make_shared<GpuSection>();
  add_value("screen_on", screen_on,
            FieldOptions("Whether or not the screen is turned on", "screen"));
  add_value("battery_level", battery_level, FieldOptions("Current battery charge level", "bat"));

  num_clusters = static_cast<int>(clusters.size());
  num_cores = 0;
  for (const auto& [first, last] : clusters) {
    num_cores += last - first + 1;
    const std::string policy = cpufreq_dir + "/policy" + std::to_string(first);
    cur_freq_paths.push_back(policy + "/cpuinfo_cur_freq");
    time_in_state_paths.push_back(policy + "/stats/time_in_state");
  }
  // Sized here, so that no report allocates for them, the first cycle-based one included.
  buffers.row.reserve(64);
  buffers.cluster_busy.assign(clusters.size(), 0);
  buffers.cluster_idle.assign(clusters.size(), 0);
  buffers.cluster_other.assign(clusters.size(), 0);

  if (cycle_util) {
    cycle_util_available = is_time_in_state_available();
    if (!cycle_util_available)
      warn("WARNING: stats: cycle based util is not available on this machine.");
  }
  set_cluster_section(time_cluster_sections, time_core_values, CPU_TIME);
  time_stats = CpuStats(num_clusters, num_cores);
  if (cycle_util_available) {
    set_cluster_section(cycle_cluster_sections, cycle_core_values, CPU_CYCLES);
    cycle_stats = CpuStats(num_clusters, num_cores);
  }
  add_subsection("gpu", gpu, FieldOptions("Info about GPU", "GPU"));
}

StatsPlugin::~StatsPlugin() {
  for (KeptFile* kept : {&bl_power, &charge_counter, &charge_full}) {
    if (kept->file != nullptr) std::fclose(kept->file);
  }
}

std::vector<std::pair<int, int>> StatsPlugin::get_affected_cpus(const std::string& dir) {
  std::vector<std::pair<int, int>> found;
  std::string text;
  DIR* listing = ::opendir(dir.c_str());
  if (listing == nullptr) return found;
  while (const dirent* entry = ::readdir(listing)) {
    const std::string name = entry->d_name;
    // The directory and its parent are no policies.
    if (name == "." || name == "..") continue;
    struct stat info;
    const std::string entry_path = dir + "/" + name;
    if (::stat(entry_path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) continue;
    const std::string path = entry_path + "/affected_cpus";
    if (os::read_node(path, text, kMaxFileBytes) == os::NodeRead::kUnopened) {
      std::cerr << "Failed to open " << path << std::endl;
      continue;
    }
    // A policy whose cores are all offline lists none; it gives no cluster, as its cores give no
    // /proc/stat rows to report.
    if (auto cluster = parse_affected_cpus(text)) found.push_back(*cluster);
  }
  ::closedir(listing);
  std::sort(found.begin(), found.end());
  return found;
}

bool StatsPlugin::is_time_in_state_available() {
  const long rate = ::sysconf(_SC_CLK_TCK);
  const unsigned long tick_rate = rate > 0 ? static_cast<unsigned long>(rate) : 100;
  // Tables by core are indexed by core number; a core outside 0..num_cores-1, or one that an
  // earlier cluster already holds, has no row in them.
  busy_idle.assign(static_cast<std::size_t>(num_cores), {});
  total_time.assign(static_cast<std::size_t>(num_cores), {});
  for (int c = 0; c < num_clusters; ++c) {
    const std::string& path = time_in_state_paths[static_cast<std::size_t>(c)];
    if (os::read_node(path, file_text, kMaxFileBytes) == os::NodeRead::kUnopened) {
      std::cerr << "Failed to open " << path << std::endl;
      return false;
    }
    if (!add_frequency_weights(file_text, topology(), c, tick_rate, freq_table, busy_idle,
                               total_time)) {
      return false;
    }
  }
  return true;
}

void StatsPlugin::set_cluster_section(
    std::vector<std::shared_ptr<CpuClusterSection>>& cluster_sections,
    std::vector<std::shared_ptr<PercentageValue<3>>>& core_values, CpuUtilComputeMethod method) {
  const std::string method_name = method == CPU_TIME ? "time" : "cycl";
  const std::string section_key = method == CPU_TIME ? "cpu" : "cpu_cycl";
  const std::shared_ptr<Section> cores_section =
      cycle_util_available
          ? add_subsection(section_key,
                           FieldOptions("Per-core " + method_name + " based utilization",
                                        "CPU (" + method_name + ")"))
          : add_subsection(section_key, FieldOptions("Per-core utilization", "CPU"));
  for (int i = 0; i < num_cores; ++i) {
    auto value = std::make_shared<PercentageValue<3>>();
    const std::string key = "cpu_" + method_name + std::to_string(i);
    cores_section->add_value(key, value,
                             FieldOptions(key + " utilization percentage", std::to_string(i)));
    core_values.push_back(value);
  }
  for (const auto& [first, last] : clusters) {
    auto section = std::make_shared<CpuClusterSection>();
    cluster_sections.push_back(section);
    std::string cores = std::to_string(first);
    if (first != last) cores += "-" + std::to_string(last);
    const std::string key = cycle_util_available ? "cpu_" + method_name + cores : "cpu" + cores;
    std::string label = "CPU" + cores;
    if (cycle_util_available) label += " (" + method_name + ")";
    add_subsection(key, section,
                   FieldOptions("Info about CPU cluster containing cores " + cores, label));
  }
}

bool StatsPlugin::update_cpu_stats_by_cpu_time() {
  // A read that fails part way, or a node past the limit, still gives the rows read so far.
  if (os::read_node(kProcStat, file_text, kMaxFileBytes) == os::NodeRead::kUnopened) {
    std::cerr << "Failed to open /proc/stat" << std::endl;
    return false;
  }
  account_proc_stat(file_text, topology(), prev_rows, time_stats, buffers);
  return true;
}

bool StatsPlugin::update_busy_and_idle_time() {
  for (int c = 0; c < num_clusters; ++c) {
    const std::string& path = time_in_state_paths[static_cast<std::size_t>(c)];
    if (os::read_node(path, file_text, kMaxFileBytes) == os::NodeRead::kUnopened) return false;
    if (!parse_time_in_state(file_text, topology(), c, freq_table, busy_idle, total_time,
                             buffers)) {
      return false;
    }
  }
  return true;
}

bool StatsPlugin::update_cpu_stats_by_cpu_cycles() {
  cycle_stats.clear();
  if (!update_busy_and_idle_time()) {
    std::cerr << "Failed update busy and idle time" << std::endl;
    return false;
  }
  if (!prev_busy_idle.empty()) {
    cycle_utilisation(topology(), freq_table, busy_idle, prev_busy_idle, total_time,
                      prev_total_time, cycle_stats, buffers);
  }
  prev_busy_idle = busy_idle;
  prev_total_time = total_time;
  return true;
}

bool StatsPlugin::update_cpu_stats(
    std::vector<std::shared_ptr<CpuClusterSection>>& cluster_sections,
    std::vector<std::shared_ptr<PercentageValue<3>>>& core_values, CpuStats& stats) {
  if (!(this->*update_fn)()) return false;
  for (std::size_t i = 0; i < cluster_sections.size(); ++i) {
    CpuClusterSection& section = *cluster_sections[i];
    section.avg_util->set(published(stats.cluster_avg_util[i]));
    section.max_util->set(published(stats.cluster_max_util[i]));
    if (auto khz = read_cur_freq(cur_freq_paths[i], file_text)) {
      section.freq->set(static_cast<float>(static_cast<double>(*khz) / 1e6));
    } else {
      section.freq->set_null();
    }
  }
  for (std::size_t i = 0; i < core_values.size(); ++i)
    core_values[i]->set(published(stats.core_util[i]));
  return true;
}

bool StatsPlugin::get_gpu_utilization(float& util) {
  GpuCounters& g = gpu_counters;
  if (!g.checked_accum) {
    g.has_accum = file_reader->Exists(kGpuBusyAccum);
    g.checked_accum = true;
  }
  if (g.has_accum) {
    const std::string text = file_reader->ReadFile(kGpuBusyAccum);
    if (!text.empty()) {
      const GpuBusy now = parse_gpu_busy(text);
      const GpuBusy moved = gpu_busy_since(now, {g.prev_busy, g.prev_total});
      g.prev_busy = now.busy;
      g.prev_total = now.total;
      // A share that is not a number is this report's failure: it does not fall through.
      const std::optional<float> share = gpu_busy_share(moved);
      if (share) util = *share;
      return share.has_value();
    }
  }
  if (!g.checked_busy) {
    g.has_busy = file_reader->Exists(kGpuBusy);
    g.checked_busy = true;
  }
  if (!g.has_busy) return false;
  const std::string text = file_reader->ReadFile(kGpuBusy);
  if (text.empty()) return false;
  const std::optional<float> share = gpu_busy_share(parse_gpu_busy(text));
  if (share) util = *share;
  return share.has_value();
}

bool StatsPlugin::get_gpu_freq(float& freq) {
  const std::string text = file_reader->ReadFile(kGpuClock);
  if (text.empty()) return false;
  freq = gpu_clock_ghz(text);
  return true;
}

std::FILE* StatsPlugin::open_kept(KeptFile& kept, const char* path) {
  if (!kept.tried) {
    kept.file = os::open_node_file(path);
    kept.tried = true;
  }
  if (kept.file != nullptr) os::rewind_node(kept.file);
  return kept.file;
}

bool StatsPlugin::is_screen_on(bool& on) {
  std::FILE* file = open_kept(bl_power, kBlPower);
  if (file == nullptr) return false;
  int power = 0;
  [[maybe_unused]] const int read = std::fscanf(file, "%i", &power);
  // 4 is FB_BLANK_POWERDOWN; every other state leaves the panel lit.
  on = power != 4;
  return true;
}

bool StatsPlugin::get_charge_level(float& level) {
  std::FILE* counter_file = open_kept(charge_counter, kChargeCounter);
  if (counter_file == nullptr) return false;
  long counter = 0;
  [[maybe_unused]] const int counter_read = std::fscanf(counter_file, "%ld", &counter);
  std::FILE* full_file = open_kept(charge_full, kChargeFull);
  if (full_file == nullptr) return false;
  long full = 0;
  [[maybe_unused]] const int full_read = std::fscanf(full_file, "%ld", &full);
  if (full == 0) return false;
  level = static_cast<float>(counter) / static_cast<float>(full);
  return true;
}

bool StatsPlugin::init() {
  bool on = false;
  float value = 0.0f;
  if (!is_screen_on(on)) warn("WARNING: stats: failed to read screen status");
  if (!get_gpu_utilization(value)) warn("WARNING: stats: failed to read GPU util");
  if (!get_gpu_freq(value)) warn("WARNING: stats: failed to read GPU freq");
  if (!get_charge_level(value)) warn("WARNING: stats: failed to read battery level");
  for (const std::string& path : cur_freq_paths) {
    if (!read_cur_freq(path, file_text)) warn("WARNING: stats: failed to read CPU frequency");
  }
  return true;
}

bool StatsPlugin::on_output() {
  update_fn = &StatsPlugin::update_cpu_stats_by_cpu_time;
  if (!update_cpu_stats(time_cluster_sections, time_core_values, time_stats)) return false;
  if (cycle_util_available) {
    update_fn = &StatsPlugin::update_cpu_stats_by_cpu_cycles;
    if (!update_cpu_stats(cycle_cluster_sections, cycle_core_values, cycle_stats)) return false;
  }
  float value = 0.0f;
  bool on = false;
  if (get_gpu_utilization(value)) {
    gpu->util->set(value);
  } else {
    gpu->util->set_null();
  }
  if (get_gpu_freq(value)) {
    gpu->freq->set(value);
  } else {
    gpu->freq->set_null();
  }
  if (is_screen_on(on)) {
    screen_on->set(on);
  } else {
    screen_on->set_null();
  }
  if (get_charge_level(value)) {
    battery_level->set(value);
  } else {
    battery_level->set_null();
  }
  return true;
}

}  // namespace emberline
