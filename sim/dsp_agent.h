#pragma once

// The headset's DSP side of the task-trace FIFO: a workload of DSP threads running tasks, and an
// agent that writes their records into the FIFO once the tool has made it.

#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace emberline::sim {

// One run of a DSP task as the DSP writes it: little-endian, native layout, 120 bytes.
struct DspRecord {
  char name[40];
  std::uint64_t id;
  std::uint64_t start_us;  // the shared counter in microseconds
  std::uint64_t end_us;
  std::int64_t start_cycles;
  std::int64_t end_cycles;
  std::int32_t start_counters[4];  // udma, hmx, pkts, hvx_pkt
  std::int32_t end_counters[4];
  std::uint32_t thread_id;
  std::uint32_t reserved;
};
static_assert(sizeof(DspRecord) == 120);

inline constexpr std::size_t kDspRecordsPerBlock = 32;
inline constexpr const char* kDspFifo = "/data/misc/dsp/HexagonTelemetrySharedFIFO";

// A few DSP threads, each running its own cycle of tasks back to back with pauses that shrink as
// the headset's load grows. Deterministic for a seed and a sequence of calls.
class DspWorkload {
 public:
  explicit DspWorkload(std::uint64_t seed);

  // Appends the runs that end at or before `now_us`. The first call starts every thread at
  // `now_us`.
  void run_until(std::uint64_t now_us, double load, std::vector<DspRecord>& out);

 private:
  struct Task {
    const char* name;
    std::uint64_t id;
    double mean_us;
    std::int32_t rates[4];  // counter increments per microsecond
  };
  struct Thread {
    std::uint32_t id;
    std::vector<Task> tasks;
    std::size_t next = 0;
    std::uint64_t start_us = 0;
    std::uint64_t cycles = 0;
    std::uint32_t counters[4] = {};
  };
  double uniform(double low, double high);

  std::mt19937_64 rng_;
  std::vector<Thread> threads_;
  bool started_ = false;
};

// Writes `records` as whole blocks of 32, the unused records of the last block zero. Returns
// false on the first failed write (errno tells), having written the blocks before it.
bool write_dsp_blocks(int fd, const std::vector<DspRecord>& records);

// The DSP agent of a live headset, on a thread of its own: waits for the FIFO at `fifo` (the
// state directory's copy of the headset path), writes the workload's runs every 10 ms stamped
// with the shared counter, and starts waiting again when the tool goes away. A full FIFO drops
// the block, as a DSP that cannot wait for the application processor would.
class DspAgent {
 public:
  DspAgent(std::string fifo, std::uint64_t seed);
  ~DspAgent();
  DspAgent(const DspAgent&) = delete;
  DspAgent& operator=(const DspAgent&) = delete;

  void set_load(double load) { load_.store(load); }

 private:
  void run();

  std::string fifo_;
  DspWorkload workload_;
  std::atomic<double> load_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace emberline::sim
