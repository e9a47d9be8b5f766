#include "plugins/dsp_trace_plugin.h"

#include <fcntl.h>
#include <pthread.h>
#include <selinux/selinux.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <iostream>
#include <iterator>
#include <utility>

#include "platform/counter/cntvct.h"

namespace emberline {

using Entry = DspTracePlugin::DspLogEntry;
static_assert(std::endian::native == std::endian::little, "records are read in native layout");
static_assert(sizeof(Entry) == 120);
static_assert(offsetof(Entry, id) == 40 && offsetof(Entry, start_us) == 48 &&
              offsetof(Entry, end_us) == 56 && offsetof(Entry, start_cycles) == 64 &&
              offsetof(Entry, end_cycles) == 72 && offsetof(Entry, start_counters) == 80 &&
              offsetof(Entry, end_counters) == 96 && offsetof(Entry, thread_id) == 112);
static_assert(DspTracePlugin::kBlockBytes == 3840);

namespace {

constexpr const char* kSelinuxContext = "u:object_r:dsp_data_file:s0";
constexpr const char* kWorkerName = "DspTraceProcessor";
constexpr const char* kCounterAnnotations[4] = {"dsp_udma", "dsp_hmx", "dsp_pkts", "dsp_hvx_pkt"};

std::int64_t steady_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

DspTracePlugin::~DspTracePlugin() {
  stop_worker();
  if (owns_fifo) ::unlink(kFifoPath);
  fifo_removal = {};
}

bool DspTracePlugin::init() {
  add_value("time_slice_map", time_slice_map, FieldOptions(), false);
  add_value("num_slices", num_slices, FieldOptions(), false);

  // The DSP side runs under another user: the umask must not take its write bits.
  if (::mkdir(kDataDirectory, 0777) == 0) {
    ::chmod(kDataDirectory, 0777);
  } else if (errno != EEXIST) {
    std::cerr << "Failed to create dsp data directory: " << std::strerror(errno) << std::endl;
  }
  if (::setfilecon(kDataDirectory, kSelinuxContext) < 0) {
    std::cerr << "Failed to set SELinux context on dsp data directory" << std::endl;
  }
  if (::mkfifo(kFifoPath, 0666) == 0) {
    ::chmod(kFifoPath, 0666);
  } else {
    // A FIFO left by a killed run ends up here too, and serves as well as a new one.
    std::cerr << "Failed to create dsp trace pipe: " << std::strerror(errno) << std::endl;
  }
  // A run killed outright leaves the FIFO behind, and the next run reuses it.
  owns_fifo = true;
  fifo_removal = crash_restore::Restore::removal(kFifoPath);
  // Reading and writing: the open does not wait for the DSP side, a writer that goes away brings
  // no end of file, and the destructor can wake the worker through the same descriptor.
  const int fd = ::open(kFifoPath, O_RDWR | O_CLOEXEC);
  // Without a descriptor nothing can ever arrive, and the report shows no slices.
  if (fd >= 0) start_worker(fd);
  return true;
}

void DspTracePlugin::start_worker(int fd) {
  pipe_fd = fd;
  worker = std::async(std::launch::async, [this] { run_worker(); });
}

void DspTracePlugin::stop_worker() {
  stop.store(true);
  if (pipe_fd >= 0) {
    // Never wait here: a full pipe means the worker is not waiting in read anyway, and a failed
    // write then costs nothing.
    ::fcntl(pipe_fd, F_SETFL, ::fcntl(pipe_fd, F_GETFL) | O_NONBLOCK);
    static const char wake_up[kBlockBytes] = {};
    [[maybe_unused]] ssize_t written = ::write(pipe_fd, wake_up, sizeof wake_up);
  }
  if (worker.valid()) worker.get();
  if (pipe_fd >= 0) ::close(pipe_fd);
  pipe_fd = -1;
}

void DspTracePlugin::run_worker() {
  // The name exceeds the 15 characters a thread name may have; keep as much of it as fits.
  if (::pthread_setname_np(::pthread_self(), kWorkerName) != 0) {
    const std::string shortened(kWorkerName, 15);
    ::pthread_setname_np(::pthread_self(), shortened.c_str());
  }
  // Each read is handled on its own: the agent writes whole blocks, a block never spans two
  // reads, and a short write (fewer records) leaves the cleared block's tail zero, which ends it.
  // Gathering reads into whole blocks instead would hold a short write back and shift every block
  // behind it.
  while (!stop.load()) {
    const ssize_t got = ::read(pipe_fd, entries, kBlockBytes);
    if (stop.load()) break;
    // Only a pipe whose every writer has gone, or a descriptor that cannot be read, ends the loop:
    // the FIFO is held open for writing too, so neither happens to it.
    if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) break;
    processDspTraces(entries);
  }
}

std::int64_t DspTracePlugin::counter_offset_ns(std::int64_t t0_ns, std::uint64_t c0,
                                               std::uint64_t c1, std::int64_t t1_ns) {
  const double middle_ns = static_cast<double>((t0_ns + t1_ns) / 2);
  const double counter_ns = static_cast<double>(c0) / platform::kCntvctTicksPerNs +
                            static_cast<double>(c1) / platform::kCntvctTicksPerNs;
  return static_cast<std::int64_t>(middle_ns + -0.5 * counter_ns);
}

void DspTracePlugin::processDspTraces(DspLogEntry* block) {
  if (block == nullptr) return;
  // Once per block, so that the clocks' drift never builds up over a run.
  const std::int64_t t0 = steady_ns();
  const std::uint64_t c0 = platform::read_cntvct();
  const std::uint64_t c1 = platform::read_cntvct();
  const std::int64_t t1 = steady_ns();
  process_records(block, kEntriesPerBlock, counter_offset_ns(t0, c0, c1, t1));
  std::memset(static_cast<void*>(block), 0, kBlockBytes);
}

const perfetto::Track& DspTracePlugin::track_for(std::uint32_t thread_id) {
  if (auto known = known_threads.find(thread_id); known != known_threads.end()) {
    return known->second;
  }
  const perfetto::Track track(thread_id, perfetto::ProcessTrack::Current());
  track_names.push_back("DSP_THREAD " + std::to_string(thread_id));
  perfetto::protos::gen::TrackDescriptor descriptor = track.Serialize();
  descriptor.set_name(track_names.back());
  perfetto::TrackEvent::SetTrackDescriptor(track, descriptor);
  return known_threads.emplace(thread_id, track).first->second;
}

void DspTracePlugin::process_records(const DspLogEntry* records, std::size_t count,
                                     std::int64_t offset_ns) {
  count = std::min(count, kEntriesPerBlock);
  // The report's share first, under the lock; the trace writes after it, so that on_output never
  // waits for the trace file.
  const char* record_names[kEntriesPerBlock];
  std::size_t valid = 0;
  {
    std::lock_guard lock(shared_mutex);
    for (; valid < count && records[valid].thread_id != 0; ++valid) {
      const DspLogEntry& r = records[valid];
      auto name = names.find(r.id);
      if (name == names.end()) {
        name = names.emplace(r.id, std::string(r.name, ::strnlen(r.name, sizeof r.name))).first;
      }
      record_names[valid] = name->second.c_str();
      Durations& durations = time_slices[r.id];
      durations.sum_ms += static_cast<double>(r.end_us - r.start_us) / 1000.0;
      ++durations.count;
      ++slice_count;
    }
  }

  const std::uint64_t offset = static_cast<std::uint64_t>(offset_ns);
  for (std::size_t i = 0; i < valid; ++i) {
    const DspLogEntry& r = records[i];
    const perfetto::Track& track = track_for(r.thread_id);
    if (!trace::category_enabled()) continue;
    const auto low_cycles = [](std::int64_t cycles) { return static_cast<std::uint32_t>(cycles); };
    perfetto::DebugAnnotation annotations[5] = {
        {"dsp_cycle",
         static_cast<std::int32_t>(low_cycles(r.end_cycles) - low_cycles(r.start_cycles))}};
    for (std::size_t k = 0; k < 4; ++k) {
      annotations[k + 1] = {kCounterAnnotations[k],
                            static_cast<std::int64_t>(r.end_counters[k]) -
                                static_cast<std::int64_t>(r.start_counters[k])};
    }
    perfetto::TrackEvent::SliceBegin(
        track, {perfetto::protos::pbzero::BUILTIN_CLOCK_MONOTONIC, offset + r.start_us * 1000},
        record_names[i], annotations, std::size(annotations));
    if (!trace::category_enabled()) continue;
    perfetto::TrackEvent::SliceEnd(
        track, {perfetto::protos::pbzero::BUILTIN_CLOCK_MONOTONIC, offset + r.end_us * 1000},
        annotations, std::size(annotations));
  }
}

bool DspTracePlugin::on_output() {
  std::vector<std::pair<const std::string*, double>> averages;
  unsigned long count = 0;
  {
    std::lock_guard lock(shared_mutex);
    count = std::exchange(slice_count, 0);
    for (auto& [id, durations] : time_slices) {
      if (durations.count == 0) continue;
      // Texts in `names` are never changed or removed, so the pointer stays good unlocked.
      averages.emplace_back(&names.find(id)->second,
                            durations.sum_ms / static_cast<double>(durations.count));
      durations = {};
    }
  }
  num_slices->set(count);
  time_slice_map->entries.clear();
  for (const auto& [name, average] : averages) {
    time_slice_map->set(*name, coralis::tidemark::json::JsonVal(average));
  }
  return true;
}

}  // namespace emberline
