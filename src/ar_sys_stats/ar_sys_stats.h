#pragma once

#include <chrono>
#include <istream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

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
  std::map<int, long> cycles_per_cluster;
  TimePoint timestamp{};
  Micros duration{0};
  double credits = -1.0;
  std::map<int, double> credits_per_cluster;
  std::map<int, long> time_per_cluster;
  std::map<int, std::map<long, long>> time_per_freq;
};

// Identities by (pid, tid); never shrinks, so a thread's name is read once per run.
using ProcInfoCache = std::shared_ptr<std::map<std::pair<int, int>, std::shared_ptr<ProcInfo>>>;

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
double cyclesToCredit(const std::map<int, long>& cycles, Micros duration, ChipsetType chipset,
                      std::map<int, double>* per_cluster);

// Stores the numbers that sscanf(text, "%ld%ld", first, second) would store.
void scanTwoLongs(const char* text, long* first, long* second);

// The counting behind getProcStats, apart from the file: adds the text's lines to `out`.
void parseTimeInState(std::istream& in, ProcStats* out, bool per_freq);

}  // namespace ArSysStats
