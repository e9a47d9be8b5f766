#include "plugins/cpu_credits_plugin.h"

#include <algorithm>
#include <limits>
#include <string>
#include <unordered_map>

namespace emberline {

using ArSysStats::ChipsetType;
using ArSysStats::ProcStats;

bool CpuCreditsPlugin::init() {
  // The first report then covers the time since start.
  prev_stats = ArSysStats::ExtractStatsAllProc(proc_info_cache);
  add_value("CPU", cpu_credits, FieldOptions("Map of process -> CPU credits"), false);
  return true;
}

bool CpuCreditsPlugin::on_output() {
  std::vector<ProcStats> snapshot = ArSysStats::ExtractStatsAllProc(proc_info_cache);
  Report(prev_stats, snapshot);
  prev_stats = std::move(snapshot);
  return true;
}

void CpuCreditsPlugin::Report(const std::vector<ProcStats>& earlier,
                              const std::vector<ProcStats>& later) {
  const ChipsetType chipset = is_chipset2_device ? ChipsetType::SIX_CORE : ChipsetType::EIGHT_CORE;
  const std::vector<ProcStats> deltas =
      ArSysStats::ProcSnapshotDelta(earlier, later, chipset, true);
  cpu_credits->entries.clear();
  std::unordered_map<std::string, int> totals;
  for (const ProcStats& delta : deltas) {
    // Threads under one credit are noise, and -1 marks a thread that could not be weighed. A
    // period under a millisecond (a wall clock set back) gives no number at all: left out too.
    if (!(delta.credits >= 1.0)) continue;
    int& total = totals[delta.info ? delta.info->comm : std::string()];
    // Truncated at each step; held at the largest int rather than overflowing.
    total = static_cast<int>(std::min(delta.credits + static_cast<double>(total),
                                      static_cast<double>(std::numeric_limits<int>::max())));
  }
  for (const auto& [name, total] : totals) {
    cpu_credits->set(name, coralis::tidemark::json::JsonVal(static_cast<long>(total)));
  }
}

}  // namespace emberline
