#include "ar_sys_stats/ar_sys_stats.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "platform/os/node.h"

namespace ArSysStats {

namespace {

// A garbled time_in_state can hold numbers whose products, sums or differences pass 64 bits;
// they wrap as the 64-bit counters themselves would, rather than being undefined.
long wrapping_add(long a, long b) {
  return static_cast<long>(static_cast<unsigned long>(a) + static_cast<unsigned long>(b));
}
long wrapping_sub(long a, long b) {
  return static_cast<long>(static_cast<unsigned long>(a) - static_cast<unsigned long>(b));
}
long wrapping_mul(long a, long b) {
  return static_cast<long>(static_cast<unsigned long>(a) * static_cast<unsigned long>(b));
}

constexpr const char* kProc = "/proc";
constexpr const char* kTask = "task";
constexpr const char* kTimeInState = "time_in_state";
constexpr const char* kComm = "comm";
constexpr const char* kCmdline = "cmdline";

// Longer lines end the file's reading: the kernel never writes one.
constexpr std::streamsize kLineBuffer = 1024;

// "/proc/<pid>/task/<tid>/<name>" in a fixed buffer: one is built per thread and tick, and a
// heap string each time would dominate the cost of the walk.
struct ThreadPath {
  char text[96];
  ThreadPath(int pid, int tid, const char* name) {
    std::snprintf(text, sizeof text, "%s/%d/%s/%d/%s", kProc, pid, kTask, tid, name);
  }
};

TimePoint now() {
  return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

// The whole node into `text`, read by libbase over a descriptor opened without blocking.
bool read_node(const std::string& path, std::string& text) {
  android::base::unique_fd fd(emberline::os::open_node(path));
  return fd.get() >= 0 && android::base::ReadFdToString(fd, &text);
}

std::string first_line(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

bool is_directory(DIR* dir, const dirent* entry) {
  if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_DIR;
  struct stat st;
  return ::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISDIR(st.st_mode);
}

// The ids of the numbered subdirectories of `path`, in directory order. Zero and names that are
// no number are skipped, as atoi reads them both as 0.
template <typename Visit>
bool for_each_id(const char* path, Visit&& visit) {
  DIR* dir = ::opendir(path);
  if (dir == nullptr) return false;
  bool complete = true;
  while (const dirent* entry = ::readdir(dir)) {
    int id = std::atoi(entry->d_name);
    if (id == 0 || !is_directory(dir, entry)) continue;
    if (!visit(id)) {
      complete = false;
      break;
    }
  }
  ::closedir(dir);
  return complete;
}

}  // namespace

const std::map<ChipsetType, std::map<int, double>> credit_factors = {
    {ChipsetType::EIGHT_CORE,
     {{0, 0.296},
      {1, 0.296},
      {2, 0.296},
      {3, 0.296},
      {4, 0.905},
      {5, 0.905},
      {6, 0.905},
      {7, 0.905}}},
    {ChipsetType::SIX_CORE,
     {{0, 0.9345}, {1, 0.9345}, {2, 0.9345}, {3, 0.9345}, {4, 0.9345}, {5, 0.9345}}},
};

bool getProcInfo(int pid, int tid, ProcInfo* out) {
  if (out == nullptr) return false;
  out->timestamp = now();
  out->pid = pid;
  out->tid = tid;
  std::string comm, cmdline;
  if (!read_node(ThreadPath(pid, tid, kComm).text, comm) ||
      !read_node(ThreadPath(pid, tid, kCmdline).text, cmdline)) {
    return false;
  }
  out->comm = first_line(comm);
  out->cmdline = first_line(cmdline);
  return true;
}

void scanTwoLongs(const char* text, long* first, long* second) {
  // What sscanf(text, "%ld%ld", ...) stores, without the stream it sets up at every call: that
  // set-up cost more than the system calls of the whole file. The second number is read only
  // when the first was.
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (end == text) return;
  *first = value;
  const char* rest = end;
  value = std::strtol(rest, &end, 10);
  if (end != rest) *second = value;
}

void parseTimeInState(std::istream& in, ProcStats* out, bool per_freq) {
  int cluster = -1;
  char line[kLineBuffer];
  while (in.getline(line, kLineBuffer)) {
    if (line[0] == 'c' && line[1] == 'p' && line[2] == 'u') {
      // One digit only: the kernel names clusters by their first CPU, below ten on every chip.
      cluster = line[3] - '0';
      continue;
    }
    long freq = 0, time = 0;
    scanTwoLongs(line, &freq, &time);
    long& cluster_time = out->time_per_cluster[cluster];
    cluster_time = wrapping_add(cluster_time, time);
    long& cycles = out->cycles_per_cluster[cluster];
    cycles = wrapping_add(cycles, wrapping_mul(time, freq));
    if (per_freq) out->time_per_freq[cluster][freq] = time;
  }
}

bool getProcStats(int pid, int tid, ProcStats* out, bool per_freq) {
  if (out == nullptr) return false;
  out->pid = pid;
  out->tid = tid;
  out->timestamp = now();
  // Its buffer stands inside the stream: no heap block per thread and tick.
  emberline::os::NodeStream in(ThreadPath(pid, tid, kTimeInState).text);
  if (!in.is_open()) return false;
  parseTimeInState(in, out, per_freq);
  return true;
}

bool ExtractStatsPerTid(int pid, int tid, std::vector<ProcStats>& out, ProcInfoCache cache) {
  if (!cache) return false;
  ProcStats stats;
  if (!getProcStats(pid, tid, &stats, false)) return false;
  auto [slot, inserted] = cache->try_emplace({pid, tid});
  if (inserted) {
    // Kept even if the read fails: the thread then shows with an empty name from the next
    // snapshot on, instead of being read again at every tick.
    slot->second = std::make_shared<ProcInfo>();
    if (!getProcInfo(pid, tid, slot->second.get())) return false;
  }
  stats.info = slot->second;
  out.push_back(std::move(stats));
  return true;
}

bool ExtractStatsPerPid(int pid, std::vector<ProcStats>& out, ProcInfoCache cache) {
  char path[48];
  std::snprintf(path, sizeof path, "%s/%d/%s", kProc, pid, kTask);
  return for_each_id(path, [&](int tid) { return ExtractStatsPerTid(pid, tid, out, cache); });
}

std::vector<ProcStats> ExtractStatsAllProc(ProcInfoCache cache) {
  std::vector<ProcStats> snapshot;
  // Every thread seen so far has an identity; most of them are still there.
  if (cache) snapshot.reserve(cache->size());
  for_each_id(kProc, [&](int pid) {
    ExtractStatsPerPid(pid, snapshot, cache);
    return true;
  });
  return snapshot;
}

ProcStats procStatsDelta(const ProcStats& earlier, const ProcStats& later, TimePoint start) {
  ProcStats delta;
  for (const auto& [cluster, cycles] : later.cycles_per_cluster) {
    auto before = earlier.cycles_per_cluster.find(cluster);
    delta.cycles_per_cluster.emplace_hint(
        delta.cycles_per_cluster.end(), cluster,
        before == earlier.cycles_per_cluster.end() ? cycles : wrapping_sub(cycles, before->second));
  }
  for (const auto& [cluster, time] : later.time_per_cluster) {
    auto before = earlier.time_per_cluster.find(cluster);
    delta.time_per_cluster.emplace_hint(
        delta.time_per_cluster.end(), cluster,
        before == earlier.time_per_cluster.end() ? time : wrapping_sub(time, before->second));
  }
  for (const auto& [cluster, freqs] : later.time_per_freq) {
    auto before_cluster = earlier.time_per_freq.find(cluster);
    auto& out = delta.time_per_freq[cluster];
    for (const auto& [freq, time] : freqs) {
      long before = 0;
      if (before_cluster != earlier.time_per_freq.end()) {
        auto f = before_cluster->second.find(freq);
        if (f != before_cluster->second.end()) before = f->second;
      }
      out[freq] = wrapping_sub(time, before);
    }
  }
  delta.pid = later.pid;
  delta.tid = later.tid;
  delta.info = later.info;
  delta.is_new = earlier.pid == -1;
  // A new thread's counters began inside the period, so its whole count belongs to it.
  delta.duration = later.timestamp - (delta.is_new ? start : earlier.timestamp);
  return delta;
}

std::vector<ProcStats> ProcSnapshotDelta(const std::vector<ProcStats>& earlier,
                                         const std::vector<ProcStats>& later, ChipsetType chipset,
                                         bool per_cluster) {
  std::vector<ProcStats> deltas;
  if (earlier.empty() || later.empty()) return deltas;
  const TimePoint start = earlier.front().timestamp;

  // Both snapshots in (pid, tid) order, walked side by side. A key seen twice in one snapshot
  // keeps its last element, so the sort is stable and the walk takes the last of a run.
  auto by_key = [](const std::vector<ProcStats>& snapshot) {
    std::vector<const ProcStats*> sorted;
    sorted.reserve(snapshot.size());
    for (const ProcStats& s : snapshot) sorted.push_back(&s);
    std::stable_sort(sorted.begin(), sorted.end(), [](const ProcStats* a, const ProcStats* b) {
      return std::pair(a->pid, a->tid) < std::pair(b->pid, b->tid);
    });
    return sorted;
  };
  const std::vector<const ProcStats*> before = by_key(earlier), after = by_key(later);
  auto key = [](const ProcStats* s) { return std::pair(s->pid, s->tid); };
  const ProcStats absent;

  std::vector<ProcStats> unordered;
  unordered.reserve(after.size());
  auto b = before.begin();
  for (auto a = after.begin(); a != after.end(); ++a) {
    if (a + 1 != after.end() && key(a[1]) == key(*a)) continue;
    while (b != before.end() && key(*b) < key(*a)) ++b;  // ended before the later snapshot
    while (b + 1 < before.end() && key(b[1]) == key(*a)) ++b;
    const ProcStats& earlier_side = b != before.end() && key(*b) == key(*a) ? **b : absent;
    if ((*a)->tid == -1) continue;
    ProcStats delta = procStatsDelta(earlier_side, **a, start);
    if (delta.duration.count() != 0) {
      delta.credits = cyclesToCredit(delta.cycles_per_cluster, delta.duration, chipset,
                                     per_cluster ? &delta.credits_per_cluster : nullptr);
    }
    unordered.push_back(std::move(delta));
  }

  // Ordered through indices: a thread's record is too big to shuffle about in a sort.
  std::vector<std::size_t> order(unordered.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [&](std::size_t x, std::size_t y) {
    return unordered[x].credits > unordered[y].credits;
  });
  deltas.reserve(order.size());
  for (std::size_t i : order) deltas.push_back(std::move(unordered[i]));
  return deltas;
}

double cyclesToCredit(const std::map<int, long>& cycles, Micros duration, ChipsetType chipset,
                      std::map<int, double>* per_cluster) {
  if (per_cluster != nullptr) per_cluster->clear();
  if (cycles.empty()) return 0.0;
  const double ms = static_cast<double>(duration.count() / 1000);
  double total = 0.0;
  for (const auto& [cluster, count] : cycles) {
    const double rate = static_cast<double>(count) / ms / 100.0;
    auto factors = credit_factors.find(chipset);
    if (factors == credit_factors.end()) return -1.0;
    auto factor = factors->second.find(cluster);
    if (factor == factors->second.end()) return -1.0;
    const double credit = rate * factor->second;
    if (per_cluster != nullptr) (*per_cluster)[cluster] += credit;
    total += credit;
  }
  return total;
}

}  // namespace ArSysStats
