#include "ar_sys_stats/ar_sys_stats.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "platform/os/node.h"

namespace ArSysStats {

namespace {

using Cache = ProcInfoCache::element_type;

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
constexpr std::string_view kTimeInState = "time_in_state";
constexpr std::string_view kComm = "comm";
constexpr std::string_view kCmdline = "cmdline";

// "/proc/<pid>/task/<tid>/<name>", or "/proc/<pid>/task" without a thread, in a fixed buffer.
// One is built per thread and tick: by hand, as snprintf's reading of its format costs more than
// the path's whole use.
class ThreadPath {
 public:
  ThreadPath(int pid, int tid, std::string_view name) : ThreadPath(pid) {
    *end_++ = '/';
    end_ = std::to_chars(end_, text_ + kSize, tid).ptr;
    *end_++ = '/';
    append(name);
  }
  explicit ThreadPath(int pid) {
    append(kProc);
    *end_++ = '/';
    end_ = std::to_chars(end_, text_ + kSize, pid).ptr;
    *end_++ = '/';
    append(kTask);
  }
  const char* c_str() const { return text_; }

 private:
  // "/proc/" and "/task/", two ids of 11 characters at most, "/time_in_state" and the NUL.
  static constexpr std::size_t kSize = 64;
  void append(std::string_view part) {
    end_ = std::copy(part.begin(), part.end(), end_);
    *end_ = '\0';
  }
  char text_[kSize];
  char* end_ = text_;
};

TimePoint now() {
  return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

// The whole of a name file into `text`, read by libbase over a descriptor opened without
// blocking.
bool read_name_file(const char* path, std::string& text) {
  android::base::unique_fd fd(emberline::os::open_node(path));
  return fd.get() >= 0 && android::base::ReadFdToString(fd, &text);
}

std::string first_line(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

// A thread's counters, opened by path, read to the end in the pieces a read gives, and closed:
// the system calls of the floor, with no copy and no heap. False when the file cannot be opened.
bool read_counters(const char* path, TimeInStateParser& parser) {
  const int fd = emberline::os::open_node(path);
  if (fd < 0) return false;
  // A thread's time_in_state fits, so that one read takes it and the next finds the end.
  char piece[4096];
  for (;;) {
    const ssize_t got = ::read(fd, piece, sizeof piece);
    if (got < 0 && errno == EINTR) continue;
    // A failing read ends the file, as it ends a stream's.
    if (got <= 0 || !parser.feed({piece, static_cast<std::size_t>(got)})) break;
  }
  ::close(fd);
  parser.finish();
  return true;
}

// The blanks of the C locale: blank, and tab to carriage return.
bool is_space(char c) {
  return c == ' ' || static_cast<unsigned char>(c - '\t') < 5;
}
bool is_digit(char c) {
  return static_cast<unsigned char>(c - '0') < 10;
}

// What strtol(p, &end, 10) converts, over [p, end): blanks, a sign, digits, held at the limits
// of long. On success `p` moves past the number; without digits nothing changes.
inline bool scan_long(const char*& p, const char* end, long* value) {
  const char* s = p;
  while (s != end && is_space(*s)) ++s;
  const bool negative = s != end && *s == '-';
  if (s != end && (*s == '+' || *s == '-')) ++s;
  if (s == end || !is_digit(*s)) return false;
  // Eighteen digits cannot pass 64 bits: the counters' own digits need no test.
  unsigned long magnitude = 0;
  const char* unchecked = s + std::min<std::ptrdiff_t>(end - s, 18);
  while (s != unchecked && is_digit(*s)) {
    magnitude = magnitude * 10 + static_cast<unsigned>(*s++ - '0');
  }
  const unsigned long limit =
      static_cast<unsigned long>(std::numeric_limits<long>::max()) + (negative ? 1 : 0);
  bool overflow = false;
  for (; s != end && is_digit(*s); ++s) {
    const unsigned digit = static_cast<unsigned>(*s - '0');
    if (overflow || magnitude > (limit - digit) / 10) {
      overflow = true;
    } else {
      magnitude = magnitude * 10 + digit;
    }
  }
  if (overflow) {
    *value = negative ? std::numeric_limits<long>::min() : std::numeric_limits<long>::max();
  } else {
    *value = static_cast<long>(negative ? 0 - magnitude : magnitude);
  }
  p = s;
  return true;
}

// Eight characters at once as digit values: each byte their character's less '0'. The first
// character stands in the lowest byte.
std::uint64_t digit_values(const char* p) {
  std::uint64_t bytes;
  std::memcpy(&bytes, p, sizeof bytes);
  return bytes ^ 0x3030303030303030;
}
// The top bit of each byte of `x` above 9: a character that is no digit.
std::uint64_t non_digits(std::uint64_t x) {
  return (((x & 0x7F7F7F7F7F7F7F7F) + 0x7676767676767676) | x) & 0x8080808080808080;
}
// The number that eight digit values spell, the first the most significant.
long eight_digits(std::uint64_t x) {
  x = x * 10 + (x >> 8);
  x = ((x & 0x000000FF000000FF) * (100 + (1000000ULL << 32)) +
       ((x >> 16) & 0x000000FF000000FF) * (1 + (10000ULL << 32))) >>
      32;
  return static_cast<long>(x);
}

// "<digits> <digits>" and nothing more, of eighteen digits at most each: the kernel's own lines.
// Commonly of fewer than eight digits each in a line of eight characters or more: then each
// number is read as one word, the second from the line's last eight characters.
bool scan_counter_line(const char* s, const char* end, long* first, long* second) {
  if constexpr (std::endian::native == std::endian::little) {
    if (end - s >= 8) {
      const std::uint64_t head = digit_values(s);
      const std::uint64_t marks = non_digits(head);
      const int digits = marks == 0 ? 8 : std::countr_zero(marks) / 8;
      const std::ptrdiff_t tail = end - (s + digits + 1);
      if (digits > 0 && digits < 8 && s[digits] == ' ' && tail > 0 && tail <= 8) {
        // What stands before the second number counts as leading zeros.
        std::uint64_t last = digit_values(end - 8);
        if (tail < 8) last &= ~std::uint64_t{0} << (8 * (8 - tail));
        if (non_digits(last) == 0) {
          *first = eight_digits(head << (8 * (8 - digits)));
          *second = eight_digits(last);
          return true;
        }
      }
    }
  }
  long numbers[2];
  for (int n = 0; n < 2; ++n) {
    const char* digits = s;
    const char* unchecked = s + std::min<std::ptrdiff_t>(end - s, 18);
    unsigned long value = 0;
    while (s != unchecked && is_digit(*s)) value = value * 10 + static_cast<unsigned>(*s++ - '0');
    if (s == digits) return false;
    numbers[n] = static_cast<long>(value);
    if (n == 0) {
      if (s == end || *s != ' ') return false;
      ++s;
    }
  }
  if (s != end) return false;
  *first = numbers[0];
  *second = numbers[1];
  return true;
}

// atoi(name), which glibc makes strtol narrowed to int, without strtol's locale: that costs more
// than the rest of a thread's visit.
int parse_id(const char* name) {
  const char* p = name;
  long value = 0;
  scan_long(p, name + std::strlen(name), &value);
  return static_cast<int>(value);
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
    // The type first, where the directory tells it: /proc lists much that is no process.
    if (entry->d_type != DT_UNKNOWN && entry->d_type != DT_DIR) continue;
    const int id = parse_id(entry->d_name);
    if (id == 0 || !is_directory(dir, entry)) continue;
    if (!visit(id)) {
      complete = false;
      break;
    }
  }
  ::closedir(dir);
  return complete;
}

// The public functions take the cache by value, as a shared pointer; the walk passes it down
// by pointer instead, which spares two atomic counts per thread.
bool extract_thread(int pid, int tid, std::vector<ProcStats>& out, Cache* cache) {
  if (cache == nullptr) return false;
  // Read in place, where it is to stay, rather than moved there.
  ProcStats& stats = out.emplace_back();
  if (!getProcStats(pid, tid, &stats, false)) {
    out.pop_back();
    return false;
  }
  auto [slot, inserted] = cache->try_emplace({pid, tid});
  if (inserted) {
    // Kept even if the read fails: the thread then shows with an empty name from the next
    // snapshot on, instead of being read again at every tick.
    slot->second = std::make_shared<ProcInfo>();
    if (!getProcInfo(pid, tid, slot->second.get())) {
      out.pop_back();
      return false;
    }
  }
  stats.info = slot->second;
  return true;
}

bool extract_process(int pid, std::vector<ProcStats>& out, Cache* cache) {
  return for_each_id(ThreadPath(pid).c_str(),
                     [&](int tid) { return extract_thread(pid, tid, out, cache); });
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
  if (!read_name_file(ThreadPath(pid, tid, kComm).c_str(), comm) ||
      !read_name_file(ThreadPath(pid, tid, kCmdline).c_str(), cmdline)) {
    return false;
  }
  out->comm = first_line(comm);
  out->cmdline = first_line(cmdline);
  return true;
}

void scanTwoLongs(std::string_view text, long* first, long* second) {
  // What sscanf(text, "%ld%ld", ...) stores, without the stream it sets up at every call, nor
  // strtol's locale: either costs more than the system calls of the whole file.
  const char* p = text.data();
  const char* end = p + text.size();
  if (scan_counter_line(p, end, first, second)) return;
  // Any other form: the second number is read only when the first was.
  long value = 0;
  if (!scan_long(p, end, &value)) return;
  *first = value;
  if (scan_long(p, end, &value)) *second = value;
}

bool TimeInStateParser::feed(std::string_view piece) {
  while (!ended_ && !piece.empty()) {
    const std::size_t line_end = piece.find('\n');
    const std::string_view part = piece.substr(0, line_end);
    // The buffer holds kLineBuffer - 1 characters and the NUL; a longer line fails the read.
    if (partial_size_ + part.size() >= kLineBuffer) {
      ended_ = true;
      break;
    }
    if (line_end == std::string_view::npos) {
      std::memcpy(partial_ + partial_size_, part.data(), part.size());
      partial_size_ += part.size();
      break;
    }
    if (partial_size_ == 0) {
      count(part);
    } else {
      std::memcpy(partial_ + partial_size_, part.data(), part.size());
      count({partial_, partial_size_ + part.size()});
      partial_size_ = 0;
    }
    piece.remove_prefix(line_end + 1);
  }
  return !ended_;
}

void TimeInStateParser::finish() {
  if (!ended_ && partial_size_ > 0) count({partial_, partial_size_});
  partial_size_ = 0;
  ended_ = true;
}

void TimeInStateParser::count(std::string_view line) {
  // As the line would stand in the buffer: a NUL after its last character.
  auto at = [&](std::size_t i) { return i < line.size() ? line[i] : '\0'; };
  if (at(0) == 'c' && at(1) == 'p' && at(2) == 'u') {
    // One digit only: the kernel names clusters by their first CPU, below ten on every chip.
    cluster_ = at(3) - '0';
    time_ = cycles_ = nullptr;
    return;
  }
  long freq = 0, time = 0;
  scanTwoLongs(line, &freq, &time);
  if (time_ == nullptr) {
    // Looked up once per cluster: the lines below a "cpu" line all add to the same sums.
    time_ = &out_->time_per_cluster[cluster_];
    cycles_ = &out_->cycles_per_cluster[cluster_];
  }
  *time_ = wrapping_add(*time_, time);
  *cycles_ = wrapping_add(*cycles_, wrapping_mul(time, freq));
  if (per_freq_) out_->time_per_freq[cluster_][freq] = time;
}

void parseTimeInState(std::string_view text, ProcStats* out, bool per_freq) {
  TimeInStateParser parser(out, per_freq);
  parser.feed(text);
  parser.finish();
}

bool getProcStats(int pid, int tid, ProcStats* out, bool per_freq) {
  if (out == nullptr) return false;
  out->pid = pid;
  out->tid = tid;
  out->timestamp = now();
  TimeInStateParser parser(out, per_freq);
  return read_counters(ThreadPath(pid, tid, kTimeInState).c_str(), parser);
}

bool ExtractStatsPerTid(int pid, int tid, std::vector<ProcStats>& out, ProcInfoCache cache) {
  return extract_thread(pid, tid, out, cache.get());
}

bool ExtractStatsPerPid(int pid, std::vector<ProcStats>& out, ProcInfoCache cache) {
  return extract_process(pid, out, cache.get());
}

std::vector<ProcStats> ExtractStatsAllProc(ProcInfoCache cache) {
  std::vector<ProcStats> snapshot;
  // Every thread seen so far has an identity; most of them are still there.
  if (cache) snapshot.reserve(cache->size());
  for_each_id(kProc, [&](int pid) {
    extract_process(pid, snapshot, cache.get());
    return true;
  });
  return snapshot;
}

namespace {

// The difference of two records into `delta`, a default record: where ProcSnapshotDelta wants it,
// with no record moved.
void take_difference(const ProcStats& earlier, const ProcStats& later, TimePoint start,
                     ProcStats& delta) {
  // In ascending order of cluster, so that each entry is appended to the difference's map.
  for (const auto& [cluster, cycles] : later.cycles_per_cluster) {
    auto before = earlier.cycles_per_cluster.find(cluster);
    delta.cycles_per_cluster[cluster] =
        before == earlier.cycles_per_cluster.end() ? cycles : wrapping_sub(cycles, before->second);
  }
  for (const auto& [cluster, time] : later.time_per_cluster) {
    auto before = earlier.time_per_cluster.find(cluster);
    delta.time_per_cluster[cluster] =
        before == earlier.time_per_cluster.end() ? time : wrapping_sub(time, before->second);
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
}

}  // namespace

ProcStats procStatsDelta(const ProcStats& earlier, const ProcStats& later, TimePoint start) {
  ProcStats delta;
  take_difference(earlier, later, start, delta);
  return delta;
}

namespace {

// Where each thread stands in two snapshots, for pairing them: an open-addressing table with
// room for every thread of both at a load of three quarters at most, made anew at each tick.
class SnapshotPairs {
 public:
  static constexpr std::uint32_t kNone = UINT32_MAX;
  struct Slot {
    std::uint64_t thread;
    std::uint32_t earlier = kNone;  // the thread's last element in each snapshot
    std::uint32_t later = kNone;
  };

  explicit SnapshotPairs(std::size_t threads)
      : slots_(std::bit_ceil(threads + threads / 3 + 1)),
        shift_(64 - std::countr_zero(slots_.size())) {}

  Slot& at(const ProcStats& s) {
    const std::uint64_t thread =
        std::uint64_t{static_cast<std::uint32_t>(s.pid)} << 32 | static_cast<std::uint32_t>(s.tid);
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = (thread * 0x9E3779B97F4A7C15) >> shift_;; i = (i + 1) & mask) {
      Slot& slot = slots_[i];
      if (slot.earlier == kNone && slot.later == kNone) {
        slot.thread = thread;
        return slot;
      }
      if (slot.thread == thread) return slot;
    }
  }

 private:
  std::vector<Slot> slots_;
  int shift_;
};

// Most credits first, threads of equal credits in the later snapshot's order. A thread that
// could not be weighed may have no number at all (a period under a millisecond): it goes last,
// so that the order stays one a sort can keep.
struct Ranked {
  double credits;
  std::uint32_t index;  // among the differences
};
bool ranks_before(const Ranked& a, const Ranked& b) {
  return a.credits != b.credits ? a.credits > b.credits : a.index < b.index;
}

}  // namespace

std::vector<ProcStats> ProcSnapshotDelta(const std::vector<ProcStats>& earlier,
                                         const std::vector<ProcStats>& later, ChipsetType chipset,
                                         bool per_cluster) {
  std::vector<ProcStats> deltas;
  if (earlier.empty() || later.empty()) return deltas;
  const TimePoint start = earlier.front().timestamp;

  // Each later element's earlier partner. A thread met twice in one snapshot counts as its last
  // element there, as a map filled in snapshot order keeps it; the later snapshot's others are
  // passed over. The table goes before the differences come, which take the room.
  constexpr std::uint32_t kPassed = SnapshotPairs::kNone - 1;
  std::vector<std::uint32_t> partners(later.size());
  {
    SnapshotPairs pairs(earlier.size() + later.size());
    for (std::uint32_t i = 0; i < earlier.size(); ++i) pairs.at(earlier[i]).earlier = i;
    for (std::uint32_t i = 0; i < later.size(); ++i) pairs.at(later[i]).later = i;
    for (std::uint32_t i = 0; i < later.size(); ++i) {
      const SnapshotPairs::Slot& pair = pairs.at(later[i]);
      partners[i] = pair.later == i ? pair.earlier : kPassed;
    }
  }

  // The differences in the later snapshot's own order, which is the order of the walk that made
  // both: the records are read from one end to the other, not hopped about in.
  const ProcStats absent;
  std::vector<Ranked> ranked;
  ranked.reserve(later.size());
  deltas.reserve(later.size());
  for (std::uint32_t i = 0; i < later.size(); ++i) {
    if (partners[i] == kPassed || later[i].tid == -1) continue;
    const ProcStats& earlier_side =
        partners[i] == SnapshotPairs::kNone ? absent : earlier[partners[i]];
    ProcStats& delta = deltas.emplace_back();
    take_difference(earlier_side, later[i], start, delta);
    if (delta.duration.count() != 0) {
      delta.credits = cyclesToCredit(delta.cycles_per_cluster, delta.duration, chipset,
                                     per_cluster ? &delta.credits_per_cluster : nullptr);
    }
    const double credits =
        std::isnan(delta.credits) ? -std::numeric_limits<double>::infinity() : delta.credits;
    ranked.push_back({credits, static_cast<std::uint32_t>(deltas.size() - 1)});
  }

  // Ordered through small entries, then each record moved once to its place: a thread's record
  // is too big to shuffle about in a sort, and a second vector of them too big to keep.
  std::sort(ranked.begin(), ranked.end(), ranks_before);
  // Place i takes the record at ranked[i].index; each cycle of the permutation is followed once.
  for (std::size_t i = 0; i < ranked.size(); ++i) {
    if (ranked[i].index == i) continue;
    ProcStats held = std::move(deltas[i]);
    std::size_t at = i;
    for (;;) {
      const std::size_t from = ranked[at].index;
      ranked[at].index = static_cast<std::uint32_t>(at);
      if (from == i) {
        deltas[at] = std::move(held);
        break;
      }
      deltas[at] = std::move(deltas[from]);
      at = from;
    }
  }
  return deltas;
}

double cyclesToCredit(const ClusterMap<long>& cycles, Micros duration, ChipsetType chipset,
                      ClusterMap<double>* per_cluster) {
  if (per_cluster != nullptr) per_cluster->clear();
  if (cycles.empty()) return 0.0;
  const double ms = static_cast<double>(duration.count() / 1000);
  auto factors = credit_factors.find(chipset);
  if (factors == credit_factors.end()) return -1.0;
  double total = 0.0;
  for (const auto& [cluster, count] : cycles) {
    const double rate = static_cast<double>(count) / ms / 100.0;
    auto factor = factors->second.find(cluster);
    if (factor == factors->second.end()) return -1.0;
    const double credit = rate * factor->second;
    if (per_cluster != nullptr) (*per_cluster)[cluster] += credit;
    total += credit;
  }
  return total;
}

}  // namespace ArSysStats
