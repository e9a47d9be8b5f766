#pragma once

#include <memory>
#include <vector>

#include "ar_sys_stats/ar_sys_stats.h"
#include "json/json_map_value.h"
#include "plugin.h"

namespace emberline {

// CPU credits by thread name over each output period, from two snapshots of every thread.
class CpuCreditsPlugin : public Plugin {
 public:
  bool init() override;
  bool on_output() override;
  void Report(const std::vector<ArSysStats::ProcStats>& earlier,
              const std::vector<ArSysStats::ProcStats>& later);

  // For tests: the reported map.
  const std::shared_ptr<JsonMapValue>& credits() const { return cpu_credits; }

 private:
  std::vector<ArSysStats::ProcStats> prev_stats;
  ArSysStats::ProcInfoCache proc_info_cache =
      std::make_shared<ArSysStats::ProcInfoCache::element_type>();
  std::shared_ptr<JsonMapValue> cpu_credits = std::make_shared<JsonMapValue>();
};

}  // namespace emberline
