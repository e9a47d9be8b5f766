#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace emberline::sim {

struct Profile;

// One CPU cluster: cores that share a clock.
struct ClusterParams {
  int cores;
  std::vector<unsigned long> freqs_khz;  // ascending, one time_in_state row each
  double base;   // share of a tick a core is busy with nothing asked of the headset
  double reach;  // how much of a busy phase's load reaches the cluster's first core
  double curve;  // load ^ curve: above 1, the cluster wakes only for heavy work
};

// CPUs, GPU and battery gauge: what the stats of a headset are made from.
struct StatsParams {
  std::vector<ClusterParams> clusters;
  double uptime_s = 0;        // time since boot when the sim starts
  std::vector<long> gpu_mhz;  // ascending clock steps
};

// Counters of one core: /proc/stat ticks, and ticks by frequency row of its cluster.
struct CoreCounters {
  std::array<unsigned long, 10> ticks{};
  std::vector<unsigned long> busy;  // by frequency row
  std::vector<unsigned long> idle;
  double share = 0;          // busy share asked of this tick
  double carry = 0;          // busy share not yet a whole tick
  unsigned int pattern = 0;  // spreads busy ticks over user, system, irq...
};

struct ClusterCounters {
  std::vector<unsigned long> total;        // ticks by frequency row
  std::vector<unsigned long> transitions;  // entries into each row
  std::size_t row = 0;                     // current frequency row
};

// The CPU, GPU and system counters at one instant. One step is one clock tick (10 ms).
struct StatsState {
  std::vector<CoreCounters> cores;
  std::vector<ClusterCounters> clusters;
  unsigned long long gpu_busy_us = 0;
  unsigned long long gpu_total_us = 0;
  unsigned int gpu_step_busy_us = 0;
  long gpu_mhz = 0;
  unsigned long long interrupts = 0;
  unsigned long long switches = 0;
  unsigned int running = 1;
  std::uint64_t jitter = 0;
};

// A headset's CPUs and GPU: four little cores and `big_cores` big ones, up for an hour.
StatsParams headset_stats(int big_cores);

// The counters of a headset that has run `uptime_s`, mostly idle.
void init_stats(StatsState& state, const StatsParams& params);

struct DeviceState;
struct ModelParams;
// One tick (a step is always one) at the present load: busy phases raise busy ticks, frequencies
// and GPU load.
void step_stats(DeviceState& state, const ModelParams& params, double seconds);

// The cpufreq policies of the profile's clusters, /proc/stat, GPU, backlight and its battery
// gauge's nodes.
void add_stats_slice(Profile& profile);

}  // namespace emberline::sim
