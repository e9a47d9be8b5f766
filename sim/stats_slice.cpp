#include "stats_slice.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "model.h"
#include "profile.h"

namespace emberline::sim {

namespace {

// Column of /proc/stat that the n-th busy tick of a core goes to: mostly user, a third system,
// a little interrupt work and niced work.
constexpr std::array<unsigned char, 32> kBusyColumns{
    0, 0, 2, 0, 0, 2, 0, 0, 2, 0, 5, 0, 2, 0, 0, 2, 0, 0, 2, 0, 6, 0, 2, 0, 0, 2, 1, 0, 2, 0, 0, 2};
constexpr unsigned int kIdleTicksPerIowait = 128;
constexpr unsigned int kGpuStepUs = 10000;

double unit_jitter(StatsState& s) {
  // splitmix64: its own stream, so the power model's random sequence stays what it was.
  std::uint64_t z = (s.jitter += 0x9e3779b97f4a7c15ULL);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  z ^= z >> 31;
  return static_cast<double>(z >> 11) * 0x1.0p-53 * 2.0 - 1.0;
}

// Busy share of the k-th core of a cluster at `load`.
double core_share(const ClusterParams& c, int k, double load, double jitter) {
  double reach = c.reach * (1.0 - 0.12 * k);
  return std::clamp(c.base + reach * std::pow(load, c.curve) + 0.06 * jitter, 0.0, 1.0);
}

// The lowest row whose clock covers `demand` with a governor's headroom.
std::size_t governor_row(const std::vector<unsigned long>& freqs, double demand) {
  double wanted = demand * 1.25 * static_cast<double>(freqs.back());
  for (std::size_t j = 0; j < freqs.size(); ++j) {
    if (static_cast<double>(freqs[j]) >= wanted) return j;
  }
  return freqs.size() - 1;
}

// Splits `busy` and `idle` ticks over the ten /proc/stat columns as the step does.
void split_ticks(CoreCounters& core, unsigned long busy, unsigned long idle) {
  core.ticks = {};
  core.ticks[0] = busy * 62 / 100;
  core.ticks[1] = busy * 2 / 100;
  core.ticks[2] = busy * 28 / 100;
  core.ticks[5] = busy * 3 / 100;
  core.ticks[6] = busy - core.ticks[0] - core.ticks[1] - core.ticks[2] - core.ticks[5];
  core.ticks[4] = idle / kIdleTicksPerIowait;
  core.ticks[3] = idle - core.ticks[4];
}

std::string proc_stat(const StatsState& s) {
  std::array<unsigned long, 10> sum{};
  for (const CoreCounters& core : s.cores) {
    for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += core.ticks[i];
  }
  auto row = [](std::string name, const std::array<unsigned long, 10>& ticks) {
    for (unsigned long t : ticks) name += " " + std::to_string(t);
    return name + "\n";
  };
  // The kernel pads the summary row's name with two blanks.
  std::string text = row("cpu ", sum);
  for (std::size_t i = 0; i < s.cores.size(); ++i) {
    text += row("cpu" + std::to_string(i), s.cores[i].ticks);
  }
  text += "intr " + std::to_string(s.interrupts) + " 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n";
  text += "ctxt " + std::to_string(s.switches) + "\n";
  text += "btime 1700000000\n";
  text += "processes " + std::to_string(40000 + s.switches / 4000) + "\n";
  text += "procs_running " + std::to_string(s.running) + "\n";
  text += "procs_blocked 0\n";
  text += "softirq " + std::to_string(s.interrupts / 3) + " 0 " + std::to_string(s.interrupts / 9) +
          " 0 " + std::to_string(s.interrupts / 20) + " 0 0 0 0 0 0\n";
  return text;
}

// Extended time_in_state: frequency, cluster time, transitions, a reserved 0, then busy and idle
// of each core of the cluster.
std::string time_in_state(const StatsState& s, const StatsParams& p, std::size_t cluster,
                          std::size_t first_core) {
  const ClusterParams& c = p.clusters[cluster];
  // A state the model never set up shows a cluster that has not run yet.
  const bool counted = cluster < s.clusters.size();
  auto at = [counted](const std::vector<unsigned long>& v, std::size_t j) {
    return std::to_string(counted ? v[j] : 0);
  };
  std::string text;
  for (std::size_t j = 0; j < c.freqs_khz.size(); ++j) {
    text += std::to_string(c.freqs_khz[j]);
    text += counted ? " " + at(s.clusters[cluster].total, j) + " " +
                          at(s.clusters[cluster].transitions, j) + " 0"
                    : " 0 0 0";
    for (int k = 0; k < c.cores; ++k) {
      if (!counted) {
        text += " 0 0";
        continue;
      }
      const CoreCounters& core = s.cores[first_core + static_cast<std::size_t>(k)];
      text += " " + at(core.busy, j) + " " + at(core.idle, j);
    }
    text += "\n";
  }
  return text;
}

const std::vector<unsigned long> kLittleKhz{300000,  576000,  768000,  1017600,
                                            1248000, 1497600, 1708800, 1804800};
const std::vector<unsigned long> kBigKhz{710400,  1056000, 1401600, 1766400,
                                         2112000, 2419200, 2841600};
const std::vector<long> kGpuMhz{257, 345, 427, 499, 585};

}  // namespace

StatsParams headset_stats(int big_cores) {
  const ClusterParams little{4, kLittleKhz, 0.04, 0.75, 1.0};
  const ClusterParams big{big_cores, kBigKhz, 0.015, 0.85, 1.8};
  return {{little, big}, 3600.0, kGpuMhz};
}

void init_stats(StatsState& s, const StatsParams& p) {
  s = StatsState{};
  const unsigned long ticks = static_cast<unsigned long>(p.uptime_s * 100);
  for (const ClusterParams& c : p.clusters) {
    const std::size_t rows = c.freqs_khz.size();
    // Most of a mostly idle hour at the lowest clock, less at each step up.
    std::vector<double> residency(rows);
    for (std::size_t j = 0; j < rows; ++j)
      residency[j] = (j == 0 ? 4.0 : 1.0) / std::pow(j + 1, 1.5);
    double weight_sum = 0;
    for (double r : residency) weight_sum += r;
    ClusterCounters counters{std::vector<unsigned long>(rows), std::vector<unsigned long>(rows), 0};
    unsigned long given = 0;
    for (std::size_t j = 0; j + 1 < rows; ++j) {
      counters.total[j] =
          static_cast<unsigned long>(static_cast<double>(ticks) * residency[j] / weight_sum);
      counters.transitions[j] = counters.total[j] / 40;
      given += counters.total[j];
    }
    counters.total[rows - 1] = ticks - given;
    counters.transitions[rows - 1] = counters.total[rows - 1] / 40;
    for (int k = 0; k < c.cores; ++k) {
      CoreCounters core;
      core.busy.resize(rows);
      core.idle.resize(rows);
      // The higher the clock, the busier the core was while it ran there.
      const double share = core_share(c, k, 0.15, 0.0);
      unsigned long busy = 0, idle = 0;
      for (std::size_t j = 0; j < rows; ++j) {
        const double u = std::min(
            0.95, share * (0.4 + 2.4 * static_cast<double>(j) / static_cast<double>(rows - 1)));
        core.busy[j] =
            static_cast<unsigned long>(std::llround(static_cast<double>(counters.total[j]) * u));
        core.idle[j] = counters.total[j] - core.busy[j];
        busy += core.busy[j];
        idle += core.idle[j];
      }
      split_ticks(core, busy, idle);
      core.carry = 0.5 * k / c.cores;
      s.cores.push_back(std::move(core));
    }
    s.clusters.push_back(std::move(counters));
  }
  s.gpu_total_us = static_cast<unsigned long long>(p.uptime_s * 1e6);
  s.gpu_busy_us = s.gpu_total_us / 12;
  s.gpu_mhz = p.gpu_mhz.empty() ? 0 : p.gpu_mhz.front();
  s.interrupts = ticks * 41;
  s.switches = ticks * 77;
}

void step_stats(DeviceState& state, const ModelParams& params, double) {
  StatsState& s = state.stats;
  const StatsParams& p = params.stats;
  const double load = state.load;
  std::size_t first = 0;
  unsigned int busy_cores = 0;
  for (std::size_t c = 0; c < p.clusters.size(); ++c) {
    const ClusterParams& params = p.clusters[c];
    ClusterCounters& cluster = s.clusters[c];
    double demand = 0;
    for (int k = 0; k < params.cores; ++k) {
      CoreCounters& core = s.cores[first + static_cast<std::size_t>(k)];
      core.share = core_share(params, k, load, unit_jitter(s));
      demand = std::max(demand, core.share);
    }
    const std::size_t row = governor_row(params.freqs_khz, demand);
    if (row != cluster.row) ++cluster.transitions[row];
    cluster.row = row;
    ++cluster.total[row];
    for (int k = 0; k < params.cores; ++k) {
      CoreCounters& core = s.cores[first + static_cast<std::size_t>(k)];
      core.carry += core.share;
      if (core.carry >= 1.0) {
        core.carry -= 1.0;
        ++core.busy[row];
        ++core.ticks[kBusyColumns[core.pattern++ % kBusyColumns.size()]];
        ++busy_cores;
      } else {
        ++core.idle[row];
        // Every so often an idle tick is spent waiting for I/O, which /proc/stat counts apart.
        ++core.ticks[(core.idle[row] % kIdleTicksPerIowait) == 0 ? 4 : 3];
      }
    }
    first += static_cast<std::size_t>(params.cores);
  }
  s.running = 1 + busy_cores;
  s.interrupts += 25 + 4 * busy_cores;
  s.switches += 30 + 60 * busy_cores;

  const double gpu = std::clamp(0.04 + 0.8 * std::pow(load, 1.2) + 0.05 * unit_jitter(s), 0.0, 1.0);
  s.gpu_step_busy_us = static_cast<unsigned int>(gpu * kGpuStepUs);
  s.gpu_busy_us += s.gpu_step_busy_us;
  s.gpu_total_us += kGpuStepUs;
  if (!p.gpu_mhz.empty()) {
    s.gpu_mhz = p.gpu_mhz.back();
    for (long mhz : p.gpu_mhz) {
      if (static_cast<double>(mhz) >= gpu * 1.15 * static_cast<double>(p.gpu_mhz.back())) {
        s.gpu_mhz = mhz;
        break;
      }
    }
  }
}

void add_stats_slice(Profile& p) {
  const StatsParams params = p.model.stats;
  p.nodes.push_back(
      rendered("/proc/stat", [](const DeviceState& s) { return proc_stat(s.stats); }));

  const std::string cpufreq = "/sys/devices/system/cpu/cpufreq/policy";
  std::size_t first = 0;
  for (std::size_t c = 0; c < params.clusters.size(); ++c) {
    const ClusterParams& cluster = params.clusters[c];
    const std::string policy = cpufreq + std::to_string(first);
    std::string cpus;
    for (int k = 0; k < cluster.cores; ++k) {
      cpus += (k == 0 ? "" : " ") + std::to_string(first + static_cast<std::size_t>(k));
    }
    p.nodes.push_back(fixed(policy + "/affected_cpus", cpus + "\n"));
    p.nodes.push_back(rendered(
        policy + "/cpuinfo_cur_freq", [c, freqs = cluster.freqs_khz](const DeviceState& s) {
          return std::to_string(freqs[c < s.stats.clusters.size() ? s.stats.clusters[c].row : 0]) +
                 "\n";
        }));
    p.nodes.push_back(
        rendered(policy + "/stats/time_in_state", [params, c, first](const DeviceState& s) {
          return time_in_state(s.stats, params, c, first);
        }));
    first += static_cast<std::size_t>(cluster.cores);
  }

  const std::string kgsl = "/sys/class/kgsl/kgsl-3d0/";
  p.nodes.push_back(rendered(kgsl + "gpubusy_accum", [](const DeviceState& s) {
    return std::to_string(s.stats.gpu_busy_us) + " " + std::to_string(s.stats.gpu_total_us) + "\n";
  }));
  p.nodes.push_back(rendered(kgsl + "gpubusy", [](const DeviceState& s) {
    char text[32];
    std::snprintf(text, sizeof text, "%7u %7u\n", s.stats.gpu_step_busy_us, kGpuStepUs);
    return std::string(text);
  }));
  p.nodes.push_back(rendered(kgsl + "clock_mhz", [](const DeviceState& s) {
    return std::to_string(s.stats.gpu_mhz) + "\n";
  }));

  // The panel stays lit: a headset in use shows its display.
  p.nodes.push_back(fixed("/sys/class/backlight/panel0-backlight/bl_power", "0\n"));

  // The gauge counts in micro amp hours of what the battery holds when full, which a worn battery
  // has less of than its design, and follows the model's state of charge.
  const double full_uah = p.model.power.capacity_ah * 1e6 * p.gauge.full_share;
  const std::string battery = "/sys/class/power_supply/battery/";
  p.nodes.push_back(rendered(battery + "charge_counter", [full_uah](const DeviceState& s) {
    return std::to_string(std::llround(s.soc * full_uah)) + "\n";
  }));
  p.nodes.push_back(fixed(battery + "charge_full", std::to_string(std::llround(full_uah)) + "\n"));
}

}  // namespace emberline::sim
