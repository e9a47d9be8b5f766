#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "crash_restore.h"
#include "json/json_map_value.h"
#include "platform/trace/perfetto.h"
#include "plugin.h"

namespace emberline {

// Task traces of the Hexagon DSP: a worker reads blocks of task records from the telemetry FIFO,
// turns each into a slice on a track of its DSP thread, and gathers durations for the report.
class DspTracePlugin : public Plugin {
 public:
  // One run of a DSP task, as the DSP writes it into the FIFO: little-endian, native layout.
  struct DspLogEntry {
    char name[40];  // NUL-terminated
    std::uint64_t id;
    std::uint64_t start_us;  // shared counter, microseconds
    std::uint64_t end_us;
    std::int64_t start_cycles;  // low 32 bits only
    std::int64_t end_cycles;
    std::int32_t start_counters[4];  // udma, hmx, pkts, hvx_pkt
    std::int32_t end_counters[4];
    std::uint32_t thread_id;  // 0 ends the records of a block
    std::uint32_t reserved;
  };
  static constexpr std::size_t kEntriesPerBlock = 32;
  static constexpr std::size_t kBlockBytes = kEntriesPerBlock * sizeof(DspLogEntry);

  static constexpr const char* kDataDirectory = "/data/misc/dsp";
  static constexpr const char* kFifoPath = "/data/misc/dsp/HexagonTelemetrySharedFIFO";

  DspTracePlugin() = default;
  ~DspTracePlugin() override;
  DspTracePlugin(const DspTracePlugin&) = delete;
  DspTracePlugin& operator=(const DspTracePlugin&) = delete;

  bool init() override;
  bool on_output() override;

  // The worker's handling of one block: records up to the first of thread 0, then the block is
  // zeroed.
  void processDspTraces(DspLogEntry* block);

  // Traces the records up to the first of thread 0, `offset_ns` being the monotonic clock minus
  // the shared counter.
  void process_records(const DspLogEntry* records, std::size_t count, std::int64_t offset_ns);

  // Starts the worker on `fd`, a descriptor open for reading and writing that the plugin then
  // owns. init() does this with the FIFO; tests with a FIFO of their own.
  void start_worker(int fd);

  // The monotonic clock minus the counter, in nanoseconds, from clock readings t0 and t1 taken
  // around counter readings c0 and c1.
  static std::int64_t counter_offset_ns(std::int64_t t0_ns, std::uint64_t c0, std::uint64_t c1,
                                        std::int64_t t1_ns);

  const std::shared_ptr<JsonMapValue>& slice_map() const { return time_slice_map; }
  const std::shared_ptr<Value<unsigned long>>& slices() const { return num_slices; }

 private:
  struct Durations {
    double sum_ms = 0;
    unsigned long count = 0;
  };

  void run_worker();
  void stop_worker();
  const perfetto::Track& track_for(std::uint32_t thread_id);

  int pipe_fd = -1;
  bool owns_fifo = false;
  // The FIFO outlives the process; a fatal signal runs no destructor, so it removes it there.
  crash_restore::Restore fifo_removal;
  std::atomic<bool> stop{false};
  std::future<void> worker;
  DspLogEntry entries[kEntriesPerBlock] = {};

  // Worker only.
  std::unordered_map<std::uint32_t, perfetto::Track> known_threads;
  std::vector<std::string> track_names;

  // Shared with on_output, under `shared_mutex`, which the worker never holds across a read or a
  // trace write. Texts in `names` are never changed or removed, so a pointer to one stays good
  // after the lock is let go.
  std::mutex shared_mutex;
  unsigned long slice_count = 0;
  std::unordered_map<unsigned long, std::string> names;
  // Kept across outputs with counts zeroed, so that a steady stream of known tasks allocates
  // nothing; an entry with no count is left out of the report.
  std::unordered_map<unsigned long, Durations> time_slices;

  std::shared_ptr<JsonMapValue> time_slice_map = std::make_shared<JsonMapValue>();
  std::shared_ptr<Value<unsigned long>> num_slices = std::make_shared<Value<unsigned long>>();
};

}  // namespace emberline
