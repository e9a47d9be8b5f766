#include "plugins/stats_plugin.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <limits>

#include "platform/os/node.h"

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

// The columns of a /proc/stat CPU row; kernels older than the last two columns give fewer.
constexpr std::size_t kStatColumns = 10;
// No kernel configures more CPUs than this; a larger "core" number is garbage, not a cluster.
constexpr int kMaxCores = 8192;
// Bounds what a garbled sysfs node can make the output path read.
constexpr std::size_t kMaxFileBytes = 1 << 20;

void warn(const char* text) {
  std::cerr << text << std::endl;
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// x86 makes 0 / 0 a NaN with the sign bit set, where the headset's ARM cores make it positive;
// a figure without a tick reads "nan" on both.
float published(float value) {
  return std::isnan(value) ? std::numeric_limits<float>::quiet_NaN() : value;
}

// The whole of a file into `text`, reusing its storage. False if the file cannot be opened.
bool read_whole(const char* path, std::string& text) {
  const int fd = os::open_node(path);
  if (fd < 0) return false;
  text.resize(std::max<std::size_t>(text.capacity(), 4096));
  std::size_t used = 0;
  for (;;) {
    if (used == text.size()) {
      if (text.size() >= kMaxFileBytes) break;
      text.resize(text.size() * 2);
    }
    const ssize_t got = ::read(fd, text.data() + used, text.size() - used);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    used += static_cast<std::size_t>(got);
  }
  ::close(fd);
  text.resize(used);
  return true;
}

// Calls `each` with every line of `text`, without its line end.
template <typename Each>
void for_each_line(std::string_view text, Each&& each) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    each(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
}

// The kHz number of a cpuinfo_cur_freq node, 0 when it holds none. Opened and closed on each use:
// a cluster's policy can come and go with hotplug. None if it cannot be opened.
std::optional<long> read_cur_freq(const std::string& path) {
  const int fd = os::open_node(path);
  if (fd < 0) return std::nullopt;
  char text[64];
  ssize_t got;
  do {
    got = ::read(fd, text, sizeof text - 1);
  } while (got < 0 && errno == EINTR);
  ::close(fd);
  text[got > 0 ? got : 0] = '\0';
  return std::strtol(text, nullptr, 10);
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

}  // namespace

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

std::optional<std::pair<int, int>> parse_affected_cpus(std::string line) {
  while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\n' ||
                           line.back() == '\r')) {
    line.pop_back();
  }
  const std::size_t first_blank = line.find(' ');
  const std::size_t last_blank = line.rfind(' ');
  const auto first = parse_core(std::string_view(line).substr(0, first_blank));
  const auto last = parse_core(
      last_blank == std::string::npos ? line : std::string_view(line).substr(last_blank + 1));
  if (!first || !last || *first > *last) return std::nullopt;
  return std::pair{*first, *last};
}

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
  cluster_busy.assign(clusters.size(), 0);
  cluster_idle.assign(clusters.size(), 0);
  cluster_other.assign(clusters.size(), 0);
  row.reserve(64);

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
    std::FILE* file = os::open_node_file(path);
    if (file == nullptr) {
      std::cerr << "Failed to open " << path << std::endl;
      continue;
    }
    char* text = nullptr;
    std::size_t size = 0;
    const ssize_t got = ::getline(&text, &size, file);
    std::fclose(file);
    // A policy whose cores are all offline lists none; it gives no cluster, as its cores give no
    // /proc/stat rows to report.
    if (got > 0) {
      if (auto cluster = parse_affected_cpus(std::string(text, static_cast<std::size_t>(got)))) {
        found.push_back(*cluster);
      }
    }
    std::free(text);
  }
  ::closedir(listing);
  std::sort(found.begin(), found.end());
  return found;
}

int StatsPlugin::cluster_of(int core) const {
  for (std::size_t c = 0; c < clusters.size(); ++c) {
    if (clusters[c].first <= core && core <= clusters[c].second) return static_cast<int>(c);
  }
  return -1;
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
    if (!read_whole(path.c_str(), file_text)) {
      std::cerr << "Failed to open " << path << std::endl;
      return false;
    }
    if (!add_frequency_weights(file_text, c, tick_rate)) return false;
  }
  return true;
}

bool StatsPlugin::add_frequency_weights(std::string_view text, int c, unsigned long tick_rate) {
  std::vector<unsigned long> weights;
  bool extended = true;
  for_each_line(text, [&](std::string_view text_line) {
    if (!extended) return;
    line.assign(text_line);
    get_cpu_stat(line, row);
    // Two numbers are the kernel's plain format; a row without numbers has no frequency to
    // weigh. A file without rows passes: its cores then count nothing, and read as not a number.
    if (row.size() == 2 || row.empty()) {
      extended = false;
      return;
    }
    weights.push_back(row[0] / tick_rate);
  });
  if (!extended) return false;
  for (int core = clusters[c].first; core <= clusters[c].second && core < num_cores; ++core) {
    if (cluster_of(core) != c) continue;
    total_time[static_cast<std::size_t>(core)].assign(weights.size(), 0);
    busy_idle[static_cast<std::size_t>(core)].assign(weights.size(), {0, 0});
  }
  freq_table.push_back(std::move(weights));
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
  if (!read_whole(kProcStat, file_text)) {
    std::cerr << "Failed to open /proc/stat" << std::endl;
    return false;
  }
  account_proc_stat(file_text);
  return true;
}

void StatsPlugin::account_proc_stat(std::string_view text) {
  if (prev_rows.empty()) {
    prev_rows.assign(static_cast<std::size_t>(num_cores) + 1,
                     std::vector<unsigned long>(kStatColumns, 0));
  }
  std::fill(time_stats.core_util.begin(), time_stats.core_util.end(), 0.0f);
  std::fill(time_stats.cluster_avg_util.begin(), time_stats.cluster_avg_util.end(), 0.0f);
  std::fill(time_stats.cluster_max_util.begin(), time_stats.cluster_max_util.end(), 0.0f);

  for_each_line(text, [this](std::string_view text_line) {
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
      time_stats.core_util[static_cast<std::size_t>(index)] = util;
      // A core in no cluster still reports its own figure.
      const int c = cluster_of(index);
      if (c >= 0) {
        time_stats.cluster_avg_util[static_cast<std::size_t>(c)] += util;
        float& max = time_stats.cluster_max_util[static_cast<std::size_t>(c)];
        max = std::fmax(max, util);
      }
    }
    std::copy(row.begin(), row.begin() + kStatColumns, prev.begin());
  });

  for (std::size_t c = 0; c < clusters.size(); ++c) {
    time_stats.cluster_avg_util[c] /=
        static_cast<float>(clusters[c].second - clusters[c].first + 1);
  }
}

bool StatsPlugin::update_busy_and_idle_time() {
  for (int c = 0; c < num_clusters; ++c) {
    if (!read_whole(time_in_state_paths[static_cast<std::size_t>(c)].c_str(), file_text) ||
        !read_time_in_state(file_text, c)) {
      return false;
    }
  }
  return true;
}

bool StatsPlugin::read_time_in_state(std::string_view text, int cluster) {
  if (cluster < 0 || static_cast<std::size_t>(cluster) >= freq_table.size()) return false;
  // Two variables, not a structured binding: clang before 16 cannot capture one in the lambda.
  const int first = clusters[static_cast<std::size_t>(cluster)].first;
  const int last = clusters[static_cast<std::size_t>(cluster)].second;
  const std::size_t size = static_cast<std::size_t>(last - first + 1);
  const std::size_t rows = freq_table[static_cast<std::size_t>(cluster)].size();
  std::size_t j = 0;
  bool ok = true;
  for_each_line(text, [&](std::string_view text_line) {
    // Rows a frequency table gained after start-up have no weight, and are left out rather
    // than end the run.
    if (!ok || j >= rows) return;
    line.assign(text_line);
    get_cpu_stat(line, row);
    if (row.size() != 4 + 2 * size) {
      ok = false;
      return;
    }
    for (std::size_t k = 0; k < size; ++k) {
      const int core = first + static_cast<int>(k);
      if (core >= num_cores || cluster_of(core) != cluster) continue;
      busy_idle[static_cast<std::size_t>(core)][j] = {row[4 + 2 * k], row[5 + 2 * k]};
      total_time[static_cast<std::size_t>(core)][j] = row[1];
    }
    ++j;
  });
  return ok;
}

bool StatsPlugin::update_cpu_stats_by_cpu_cycles() {
  std::fill(cluster_busy.begin(), cluster_busy.end(), 0);
  std::fill(cluster_idle.begin(), cluster_idle.end(), 0);
  std::fill(cluster_other.begin(), cluster_other.end(), 0);
  std::fill(cycle_stats.core_util.begin(), cycle_stats.core_util.end(), 0.0f);
  std::fill(cycle_stats.cluster_avg_util.begin(), cycle_stats.cluster_avg_util.end(), 0.0f);
  std::fill(cycle_stats.cluster_max_util.begin(), cycle_stats.cluster_max_util.end(), 0.0f);

  if (!update_busy_and_idle_time()) {
    std::cerr << "Failed update busy and idle time" << std::endl;
    return false;
  }
  if (!prev_busy_idle.empty()) {
    for (int core = 0; core < num_cores; ++core) {
      const int c = cluster_of(core);
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
      const double util =
          1.0 - static_cast<double>(idle) / static_cast<double>(busy + idle + other);
      cycle_stats.core_util[static_cast<std::size_t>(core)] = static_cast<float>(util);
      float& max = cycle_stats.cluster_max_util[static_cast<std::size_t>(c)];
      max = static_cast<float>(std::fmax(static_cast<double>(max), util));
      cluster_busy[static_cast<std::size_t>(c)] += busy;
      cluster_idle[static_cast<std::size_t>(c)] += idle;
      cluster_other[static_cast<std::size_t>(c)] += other;
    }
    for (std::size_t c = 0; c < clusters.size(); ++c) {
      // A ratio of the cluster's cycle sums, so that a core that ran faster weighs more.
      cycle_stats.cluster_avg_util[c] = static_cast<float>(
          1.0 - static_cast<double>(cluster_idle[c]) /
                    static_cast<double>(cluster_busy[c] + cluster_idle[c] + cluster_other[c]));
    }
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
    if (auto khz = read_cur_freq(cur_freq_paths[i])) {
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
      long long busy = 0;
      long long total = 0;
      std::sscanf(text.c_str(), "%lld %lld", &busy, &total);
      // Differences wrap rather than overflow on counters that went backwards.
      const auto db = static_cast<long long>(static_cast<unsigned long long>(busy) -
                                             static_cast<unsigned long long>(g.prev_busy));
      const auto dt = static_cast<long long>(static_cast<unsigned long long>(total) -
                                             static_cast<unsigned long long>(g.prev_total));
      g.prev_busy = busy;
      g.prev_total = total;
      const float r = static_cast<float>(static_cast<double>(db) / static_cast<double>(dt));
      if (std::isnan(r)) return false;
      util = r;
      return true;
    }
  }
  if (!g.checked_busy) {
    g.has_busy = file_reader->Exists(kGpuBusy);
    g.checked_busy = true;
  }
  if (!g.has_busy) return false;
  const std::string text = file_reader->ReadFile(kGpuBusy);
  if (text.empty()) return false;
  long long busy = 0;
  long long total = 0;
  std::sscanf(text.c_str(), "%lld %lld", &busy, &total);
  const float r = static_cast<float>(static_cast<double>(busy) / static_cast<double>(total));
  if (std::isnan(r)) return false;
  util = r;
  return true;
}

bool StatsPlugin::get_gpu_freq(float& freq) {
  const std::string text = file_reader->ReadFile(kGpuClock);
  if (text.empty()) return false;
  long mhz = 0;
  std::sscanf(text.c_str(), "%ld", &mhz);
  freq = static_cast<float>(mhz) / 1000.0f;
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
    if (!read_cur_freq(path)) warn("WARNING: stats: failed to read CPU frequency");
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
