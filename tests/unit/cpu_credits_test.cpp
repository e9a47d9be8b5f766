#include <gtest/gtest.h>

#include <cmath>

#include "plugins/cpu_credits_plugin.h"

namespace {

using ArSysStats::ProcStats;

// A thread whose cycles on cluster 0 of the eight-core chip come to `credits` over one second.
ProcStats thread(int tid, const std::string& comm, double credits, long long at_us) {
  ProcStats s;
  s.pid = 100;
  s.tid = tid;
  s.info = std::make_shared<ArSysStats::ProcInfo>();
  s.info->comm = comm;
  s.timestamp = ArSysStats::TimePoint(std::chrono::microseconds(at_us));
  s.cycles_per_cluster[0] = std::lround(credits / 0.296 * 100.0 * 1000.0);
  return s;
}

TEST(CpuCredits, SumsThreadsOfOneNameTruncatingAtEachStep) {
  struct Case {
    std::vector<std::pair<std::string, double>> threads;
    std::string text;
  } cases[] = {
      {{{"RenderThread", 2.7}, {"RenderThread", 1.6}}, "RenderThread:3"},
      {{{"sh", 0.9}, {"sh", 0.9}, {"zygote", 1.01}}, "zygote:1"},
      {{{"b", 5.5}, {"a", 1.2}, {"", 2.5}, {"b", 0.99}, {"a", 40.7}}, ":2 | a:41 | b:5"},
      {{{"idle", 0.0}}, ""},
      {{}, ""},
  };
  for (const auto& c : cases) {
    std::vector<ProcStats> earlier{thread(1, "anchor", 0, 0)},
        later{thread(1, "anchor", 0, 1000000)};
    int tid = 2;
    for (const auto& [comm, credits] : c.threads) {
      earlier.push_back(thread(tid, comm, 0, 0));
      later.push_back(thread(tid++, comm, credits, 1000000));
    }
    emberline::CpuCreditsPlugin plugin;
    plugin.credits()->set("stale", coralis::tidemark::json::JsonVal(9));
    plugin.Report(earlier, later);
    EXPECT_EQ(plugin.credits()->to_str(), c.text);
  }
}

TEST(CpuCredits, ThreadsThatCannotBeWeighedAreLeftOutAndHugeOnesHeld) {
  std::vector<ProcStats> earlier{thread(1, "same_instant", 0, 0), thread(2, "odd_cluster", 0, 0),
                                 thread(3, "under_1ms", 0, 0), thread(4, "huge", 0, 0)};
  std::vector<ProcStats> later{thread(1, "same_instant", 50, 0),
                               thread(2, "odd_cluster", 50, 1000000),
                               thread(3, "under_1ms", 0, 500), thread(4, "huge", 0, 1000000)};
  later[1].cycles_per_cluster[9] = 1;
  later[3].cycles_per_cluster[4] = 1L << 62;
  emberline::CpuCreditsPlugin plugin;
  plugin.Report(earlier, later);
  EXPECT_EQ(plugin.credits()->to_json(), "{\"huge\":2147483647}");
}

}  // namespace
