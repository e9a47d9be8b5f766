// The simulated process tree: counters that follow the load, threads that come and go, and the
// files that show them.

#include "proc_tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "profile.h"
#include "state_dir.h"

namespace emberline::sim {
namespace {

namespace fs = std::filesystem;

double total_ticks(const ProcTreeState& tree, bool big) {
  double sum = 0;
  for (const ThreadState& t : tree.threads) {
    if (t.traits.big == big && t.end_step == 0) {
      for (double ticks : t.ticks) sum += ticks;
    }
  }
  return sum;
}

TEST(ProcTree, CountersGrowWithLoadAtTheClustersFrequency) {
  const ProcTreeParams& params = find_profile("generic-300")->model.threads;
  struct Case {
    double load;
    std::size_t big_freq;  // index of the big cluster's frequency that grows
  } cases[] = {{0.0, 0}, {0.5, 2}, {1.0, 4}};
  double grown_before = -1;
  for (const auto& c : cases) {
    ProcTreeState tree = initial_proc_tree(params, 1);
    ASSERT_EQ(tree.threads.size(), 300u);
    ProcTreeState start = tree;
    for (int i = 0; i < 100; ++i) step_proc_tree(params, tree, c.load, 0.01);
    double grown = total_ticks(tree, true) - total_ticks(start, true);
    EXPECT_GT(grown, grown_before) << c.load;
    grown_before = grown;
    for (std::size_t i = 0; i < tree.threads.size() && i < start.threads.size(); ++i) {
      const ThreadState& t = tree.threads[i];
      if (!t.traits.big || t.end_step != 0 || t.tid != start.threads[i].tid) continue;
      for (std::size_t f = 0; f < t.ticks.size(); ++f) {
        EXPECT_EQ(t.ticks[f] > start.threads[i].ticks[f], f == 5 + c.big_freq) << t.traits.comm;
      }
    }
  }
}

TEST(ProcTree, ShortLivedThreadsStartAndEndAndTheFilesFollow) {
  const Profile& profile = *find_profile("generic");
  const ProcTreeParams& params = profile.model.threads;
  TemporaryDir state;
  DeviceModel model(profile.model, 3);
  lay_out(profile, state.path(), model.state());
  LiveThreads live(params, model.state().threads, state.path());
  auto on_disk = [&] {
    std::set<std::string> dirs;
    for (const auto& process : fs::directory_iterator(state.path() + "/proc")) {
      if (!process.is_directory()) continue;
      for (const auto& task : fs::directory_iterator(process.path() / "task")) {
        dirs.insert(task.path().filename().string());
      }
    }
    return dirs;
  };
  std::set<int> seen;
  std::size_t most = 0;
  for (int i = 0; i < 1000; ++i) {
    model.step();
    live.update(model.state().threads);
    for (const ThreadState& t : model.state().threads.threads) seen.insert(t.tid);
    most = std::max(most, model.state().threads.threads.size());
  }
  // Ten seconds at two new threads a second, each gone within three.
  const std::size_t named = initial_proc_tree(params, 3).threads.size();
  EXPECT_GE(seen.size(), named + 10);
  EXPECT_GT(most, named);
  EXPECT_LT(model.state().threads.threads.size(), named + 10);
  std::set<std::string> expected;
  for (const ThreadState& t : model.state().threads.threads) {
    expected.insert(std::to_string(t.tid));
    std::string dir = state.path() + thread_dir(t.pid, t.tid);
    std::ostringstream text;
    text << std::ifstream(dir + "/time_in_state").rdbuf();
    EXPECT_EQ(text.str(), time_in_state(params, t)) << t.tid;
  }
  EXPECT_EQ(on_disk(), expected);
}

}  // namespace
}  // namespace emberline::sim
