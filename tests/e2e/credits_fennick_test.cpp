// On the six-core generation every cluster weighs 0.9345, the little one too. The generation is
// the headset's, so the plugin is asked in-process inside a Fennick.

#include <gtest/gtest.h>

#include "ar_sys_stats/ar_sys_stats.h"
#include "plugins/cpu_credits_plugin.h"

namespace {

TEST(CreditsReport, SixCoreChipWeighsTheLittleCluster) {
  // One tick at 300 MHz: 2.80 credits over a second here, 0.888 on an eight-core chip.
  auto sh = [](long cycles, long long at_us) {
    ArSysStats::ProcStats s;
    s.pid = s.tid = 2890;
    s.info = std::make_shared<ArSysStats::ProcInfo>();
    s.info->comm = "sh";
    s.cycles_per_cluster = {{0, cycles}};
    s.timestamp = ArSysStats::TimePoint(std::chrono::microseconds(at_us));
    return s;
  };
  emberline::CpuCreditsPlugin plugin;
  plugin.Report({sh(0, 0)}, {sh(300000, 1000000)});
  EXPECT_EQ(plugin.credits()->to_json(), R"({"sh":2})");
}

}  // namespace
