#include "plugins/cpu_credits_plugin.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <string>

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
  // Totals by name. A report has tens of names, so a list searched from the front costs less
  // than the nodes of a hash map made anew at every tick.
  struct Total {
    const std::string* name;
    int total;
  };
  std::vector<Total> totals;
  static const std::string kNoName;
  for (const ProcStats& delta : deltas) {
    // Threads under one credit are noise, and -1 marks a thread that could not be weighed. A
    // period under a millisecond (a wall clock set back) gives no number at all: left out too.
    if (!(delta.credits >= 1.0)) continue;
    const std::string& name = delta.info ? delta.info->comm : kNoName;
    auto total =
        std::find_if(totals.begin(), totals.end(), [&](const Total& t) { return *t.name == name; });
    if (total == totals.end()) total = totals.insert(totals.end(), {&name, 0});
    // Truncated at each step; held at the largest int rather than overflowing.
    total->total = static_cast<int>(std::min(delta.credits + static_cast<double>(total->total),
                                             static_cast<double>(std::numeric_limits<int>::max())));
  }
  // The map then holds exactly these totals. Names of the last report that are in this one too
  // keep their entries, which spares making them again: a steady headset reports the same names.
  auto by_name = [](const Total& a, const Total& b) { return *a.name < *b.name; };
  std::sort(totals.begin(), totals.end(), by_name);
  auto& entries = cpu_credits->entries;
  for (auto entry = entries.begin(); entry != entries.end();) {
    const bool kept =
        std::binary_search(totals.begin(), totals.end(), Total{&entry->first, 0}, by_name);
    entry = kept ? std::next(entry) : entries.erase(entry);
  }
  for (const Total& total : totals) {
    cpu_credits->set(*total.name, coralis::tidemark::json::JsonVal(static_cast<long>(total.total)));
  }
}

}  // namespace emberline
