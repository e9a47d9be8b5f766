#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace emberline::sim {

// A thread as the headset's userspace has it: its name and how much of one CPU it takes when
// the headset is idle and, on top, at full load.
struct ThreadTraits {
  std::string comm;
  double idle_share = 0.0;
  double busy_share = 0.0;
  bool big = false;  // runs on the big cluster
};

struct ProcessSpec {
  int pid;
  std::string cmdline;  // NUL-separated arguments, as the kernel shows them
  std::vector<ThreadTraits> threads;
  std::string transient_prefix;  // empty: starts no short-lived threads
};

// One cluster of CPUs: the CPU that names it in time_in_state and its frequencies in kHz.
struct ClusterSpec {
  int first_cpu;
  std::vector<long> freqs_khz;
};

// The process tree of a headset: the processes, their long-lived threads, the worker threads
// that fill it up to `total_threads`, and threads that start and end while it runs.
struct ProcTreeParams {
  std::vector<ProcessSpec> processes;
  std::vector<ClusterSpec> clusters;
  int total_threads = 0;
  double transient_per_s = 0.0;  // short-lived threads started per second
  double transient_min_s = 0.2;
  double transient_max_s = 3.0;
};

struct ThreadState {
  int pid;
  int tid;
  ThreadTraits traits;
  std::vector<double> ticks;   // per cluster and frequency, in the kernel's 10 ms ticks
  std::uint64_t end_step = 0;  // 0: lives as long as the headset
  std::uint64_t version = 0;   // changes whenever a whole tick count does
};

// The live threads. Deterministic for a seed.
struct ProcTreeState {
  std::vector<ThreadState> threads;
  std::mt19937_64 rng;
  std::uint64_t step = 0;
  int next_tid = 0;
  int started = 0;
};

ProcTreeState initial_proc_tree(const ProcTreeParams& params, std::uint64_t seed);
struct DeviceState;
struct ModelParams;
// One model step of `seconds`, at the headset's present load.
void step_proc_tree(DeviceState& state, const ModelParams& params, double seconds);

std::string thread_dir(int pid, int tid);
std::string time_in_state(const ProcTreeParams& params, const ThreadState& thread);

// The process tree of a standalone headset. With `threads` above its own count, binder pools pad
// it to that many, as on a busy headset (what the thread walks are measured on).
ProcTreeParams headset_threads(int threads = 0);

struct Profile;
// The tree's files as the profile's nodes, so that a frozen headset has them too.
void add_proc_tree(Profile& profile);

// Follows the live tree on disk: makes the directories of new threads, removes those of ended
// ones and rewrites counters that changed in place. Threads appear and vanish by a rename, so a
// reader sees a thread whole or not at all.
class LiveThreads {
 public:
  LiveThreads(const ProcTreeParams& params, const ProcTreeState& initial, std::string state_dir);
  void update(const ProcTreeState& tree);

 private:
  const ProcTreeParams& params_;
  std::string state_;
  struct Written {
    int pid;
    std::uint64_t version;
  };
  std::unordered_map<int, Written> written_;  // by tid: what is on disk
};

}  // namespace emberline::sim
