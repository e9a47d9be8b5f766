#include "dsp_agent.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <utility>

#include "platform/counter/cntvct.h"

namespace emberline::sim {

namespace {
// Cycles of the DSP core per microsecond of a task.
constexpr double kCyclesPerUs = 1000.0;
// Pause between two tasks of one thread at no load; full load leaves a sixth of it.
constexpr double kIdlePauseUs = 2400.0;
}  // namespace

DspWorkload::DspWorkload(std::uint64_t seed) : rng_(seed ^ 0xd5b7'0f1a'2c44'9e03ull) {
  threads_ = {
      {1027,
       {{"hvx_conv3x3", 0x101, 900, {40, 0, 300, 250}},
        {"hmx_matmul_int8", 0x102, 1600, {60, 500, 200, 20}}}},
      {1028,
       {{"udma_prefetch", 0x201, 300, {900, 0, 40, 0}},
        {"tracking_kalman", 0x202, 450, {10, 0, 180, 90}}}},
      {1031,
       {{"audio_postproc", 0x301, 700, {20, 0, 150, 120}},
        {"eye_seg_tile", 0x302, 1200, {120, 350, 220, 180}}}},
  };
  // Start the cycle counters close to their 32-bit wrap, which the tool must get through.
  for (Thread& t : threads_)
    t.cycles = 0xfff0'0000ull + static_cast<std::uint64_t>(uniform(0, 1e6));
}

double DspWorkload::uniform(double low, double high) {
  // Our own mapping from raw bits, as the device model does, so a seed gives one run everywhere.
  return low + (high - low) * static_cast<double>(rng_() >> 11) * 0x1.0p-53;
}

void DspWorkload::run_until(std::uint64_t now_us, double load, std::vector<DspRecord>& out) {
  if (!started_) {
    for (Thread& t : threads_) t.start_us = now_us + static_cast<std::uint64_t>(uniform(0, 500));
    started_ = true;
  }
  for (Thread& t : threads_) {
    for (;;) {
      const Task& task = t.tasks[t.next];
      // The run's length is drawn when it is due; a run that ends later waits for a later call.
      const auto duration = static_cast<std::uint64_t>(task.mean_us * uniform(0.75, 1.25));
      if (t.start_us + duration > now_us) break;
      DspRecord r{};
      std::strncpy(r.name, task.name, sizeof r.name - 1);
      r.id = task.id;
      r.start_us = t.start_us;
      r.end_us = t.start_us + duration;
      r.start_cycles = static_cast<std::int64_t>(t.cycles);
      t.cycles += static_cast<std::uint64_t>(static_cast<double>(duration) * kCyclesPerUs);
      r.end_cycles = static_cast<std::int64_t>(t.cycles);
      for (int k = 0; k < 4; ++k) {
        r.start_counters[k] = static_cast<std::int32_t>(t.counters[k]);
        t.counters[k] +=
            static_cast<std::uint32_t>(task.rates[k]) * static_cast<std::uint32_t>(duration);
        r.end_counters[k] = static_cast<std::int32_t>(t.counters[k]);
      }
      r.thread_id = t.id;
      out.push_back(r);
      const double pause = kIdlePauseUs * (1.0 - 0.83 * load) * uniform(0.5, 1.5);
      t.start_us = r.end_us + static_cast<std::uint64_t>(pause);
      t.next = (t.next + 1) % t.tasks.size();
    }
  }
}

bool write_dsp_blocks(int fd, const std::vector<DspRecord>& records) {
  for (std::size_t first = 0; first < records.size(); first += kDspRecordsPerBlock) {
    DspRecord block[kDspRecordsPerBlock] = {};
    const std::size_t count = std::min(kDspRecordsPerBlock, records.size() - first);
    std::memcpy(static_cast<void*>(block), &records[first], count * sizeof(DspRecord));
    // One block is below PIPE_BUF, so it goes in whole or not at all.
    if (::write(fd, block, sizeof block) != static_cast<ssize_t>(sizeof block)) return false;
  }
  return true;
}

DspAgent::DspAgent(std::string fifo, std::uint64_t seed)
    : fifo_(std::move(fifo)), workload_(seed), thread_([this] { run(); }) {}

DspAgent::~DspAgent() {
  stop_.store(true);
  thread_.join();
}

void DspAgent::run() {
  // A tool that goes away must cost a failed write, not the whole sim.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

  int fd = -1;
  std::vector<DspRecord> records;
  while (!stop_.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    // The workload runs whether or not anyone listens, so a new reader gets no backlog.
    records.clear();
    workload_.run_until(platform::cntvct_to_us(platform::read_cntvct()), load_.load(), records);
    // Fails until the tool has made the FIFO and holds it open.
    if (fd < 0) fd = ::open(fifo_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) continue;
    if (!write_dsp_blocks(fd, records) && errno != EAGAIN) {
      ::close(fd);
      fd = -1;
    }
  }
  if (fd >= 0) ::close(fd);
}

}  // namespace emberline::sim
