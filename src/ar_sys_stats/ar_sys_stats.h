#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ar_sys_stats/cluster_map.h"
#include "ar_sys_stats/map_on_demand.h"
#include "ar_sys_stats/thread_map.h"

// CPU time of every thread by cluster and frequency, from the kernel's per-thread time_in_state,
// and the credit model that weighs it.
namespace ArSysStats {

using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;
using Micros = std::chrono::duration<long long, std::micro>;

// A thread's identity, read once and then shared by every snapshot.
struct ProcInfo {
  int pid = -1;
  int tid = -1;
  std::string comm;
  std::string cmdline;
  TimePoint timestamp{};
};

// One thread in a snapshot, or what it did between two snapshots.
struct ProcStats {
  int pid = -1;
  int tid = -1;
  std::shared_ptr<ProcInfo> info;
  bool is_new = false;
  ClusterMap<long> cycles_per_cluster;
  TimePoint timestamp{};
  Micros duration{0};
  double credits = -1.0;
  ClusterMap<double> credits_per_cluster;
  ClusterMap<long> time_per_cluster;
  MapOnDemand<std::map<int, std::map<long, long>>> time_per_freq;
};

// Identities by (pid, tid); never shrinks, so a thread's name is read once per run.
using ProcInfoCache = std::shared_ptr<ThreadMap<std::shared_ptr<ProcInfo>>>;

enum class ChipsetType { EIGHT_CORE = 1, SIX_CORE = 2 };

// Weight of each cluster number, as time_in_state names the cluster.
extern const std::map<ChipsetType, std::map<int, double>> credit_factors;

bool getProcInfo(int pid, int tid, ProcInfo* out);
bool getProcStats(int pid, int tid, ProcStats* out, bool per_freq);
bool ExtractStatsPerTid(int pid, int tid, std::vector<ProcStats>& out, ProcInfoCache cache);
bool ExtractStatsPerPid(int pid, std::vector<ProcStats>& out, ProcInfoCache cache);
std::vector<ProcStats> ExtractStatsAllProc(ProcInfoCache cache);

ProcStats procStatsDelta(const ProcStats& earlier, const ProcStats& later, TimePoint start);
// Differences of two snapshots with their credits, most credits first.
std::vector<ProcStats> ProcSnapshotDelta(const std::vector<ProcStats>& earlier,
                                         const std::vector<ProcStats>& later, ChipsetType chipset,
                                         bool per_cluster);
double cyclesToCredit(const ClusterMap<long>& cycles, Micros duration, ChipsetType chipset,
                      ClusterMap<double>* per_cluster);

// Stores the numbers that sscanf(text, "%ld%ld", first, second) would store, reading no further
// than the end of `text` or a NUL in it.
void scanTwoLongs(std::string_view text, long* first, long* second);

// The counting behind getProcStats, apart from the file. It takes the text in pieces as they are
// read, cut anywhere, and counts each line as a read of the file line by line into a buffer of
// kLineBuffer characters would: a line that does not fit ends the reading.
class TimeInStateParser {
 public:
  static constexpr std::size_t kLineBuffer = 1024;

  TimeInStateParser(ProcStats* out, bool per_freq) : out_(out), per_freq_(per_freq) {}
  // False once a line too long has ended the reading: nothing more is counted.
  bool feed(std::string_view piece);
  // The end of the file: a last line without a line end counts too.
  void finish();

 private:
  void count(std::string_view line);

  ProcStats* out_;
  bool per_freq_;
  bool ended_ = false;
  int cluster_ = -1;
  // The current cluster's sums, once a line has been counted for it.
  long* time_ = nullptr;
  long* cycles_ = nullptr;
  // The start of a line whose end a later piece brings.
  std::size_t partial_size_ = 0;
  char partial_[kLineBuffer];
};

// The whole text at once: adds its lines to `out`.
void parseTimeInState(std::string_view text, ProcStats* out, bool per_freq);

}  // namespace ArSysStats
