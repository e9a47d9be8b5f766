// Thread walks over the simulated headset's /proc, threads vanishing mid-walk, and the credits
// report of the real binary.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <set>
#include <thread>

#include "ar_sys_stats/ar_sys_stats.h"
#include "harness.h"
#include "plugins/cpu_credits_plugin.h"
#include "support/heap_counter.h"

namespace {

using namespace ArSysStats;

// The headset's thread tree as the test sees it, in the state directory.
std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

std::string task_dir(int pid) {
  return e2e::state_dir() + "/proc/" + std::to_string(pid) + "/task/";
}

// The thread of `pid` named `comm`; -1 if there is none.
int find_tid(int pid, const std::string& comm) {
  for (const std::string& tid : entries(task_dir(pid))) {
    if (e2e::read_file(task_dir(pid) + tid + "/comm") == comm + "\n") return std::stoi(tid);
  }
  return -1;
}

// Adds `ticks` to the counter of `freq` in the first cluster of a thread's time_in_state.
void add_ticks(int pid, int tid, long freq, long ticks) {
  std::string path = task_dir(pid) + std::to_string(tid) + "/time_in_state";
  std::string text;
  for (const std::string& line : e2e::lines(e2e::read_file(path))) {
    long f = 0, t = 0;
    if (!line.starts_with("cpu") && std::sscanf(line.c_str(), "%ld %ld", &f, &t) == 2 &&
        f == freq && ticks != 0) {
      text += std::to_string(f) + " " + std::to_string(t + ticks) + "\n";
      ticks = 0;
    } else {
      text += line + "\n";
    }
  }
  e2e::write_file(path, text);
}

// Starts a thread of `pid` in the headset's listing; returns its directory.
std::string start_thread(int pid, int tid, const std::string& comm, const std::string& cmdline,
                         const std::string& time_in_state) {
  const std::string dir = task_dir(pid) + std::to_string(tid) + "/";
  std::filesystem::create_directories(dir);
  e2e::write_file(dir + "comm", comm + "\n");
  e2e::write_file(dir + "cmdline", cmdline + std::string(1, '\0'));
  e2e::write_file(dir + "time_in_state", time_in_state);
  return dir;
}

// The names a credits report shows.
std::set<std::string> names_of(emberline::CpuCreditsPlugin& plugin) {
  std::set<std::string> names;
  for (const auto& [name, credits] : plugin.credits()->entries) names.insert(name);
  return names;
}

// Credits are per whole millisecond of the period; a period that short would have none.
void let_a_period_pass() {
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

std::size_t threads_on_disk() {
  std::size_t n = 0;
  for (const std::string& pid : entries(e2e::state_dir() + "/proc")) {
    if (std::isdigit(static_cast<unsigned char>(pid[0]))) {
      n += entries(task_dir(std::stoi(pid))).size();
    }
  }
  return n;
}

// Every entry of a snapshot is a whole thread: identity read, counters read.
void expect_whole(const std::vector<ProcStats>& snapshot) {
  for (const ProcStats& s : snapshot) {
    ASSERT_TRUE(s.info) << s.tid;
    EXPECT_EQ(std::pair(s.info->pid, s.info->tid), std::pair(s.pid, s.tid));
    EXPECT_FALSE(s.info->comm.empty()) << s.tid;
    EXPECT_EQ(s.cycles_per_cluster.size(), 2u) << s.tid;
  }
}

const ProcStats* find(const std::vector<ProcStats>& snapshot, int pid, int tid) {
  for (const ProcStats& s : snapshot) {
    if (s.pid == pid && s.tid == tid) return &s;
  }
  return nullptr;
}

// A process without a task directory is passed over, as are entries of a task directory that
// name no thread. A counters file longer than one read comes in several pieces, with lines across
// their borders; a line too long for the line buffer ends the counting wherever it stands.
TEST(ThreadWalk, ReadsEveryThreadWithItsIdentityOnce) {
  const int sf = 2131;
  const int engine = find_tid(sf, "RenderEngine");
  std::string text = "cpu0\n300000 7\n691200 1\n";
  for (int i = 0; i < 2000; ++i) text += "1 1\n";
  text += "cpu4\n710400 2\n2419200 3\n" + std::string(1019, ' ') + "7 3\n" +
          std::string(1021, ' ') + "7 3\n9 9\n";
  e2e::write_file(task_dir(sf) + std::to_string(engine) + "/time_in_state", text);
  const std::size_t threads = threads_on_disk() - entries(task_dir(2890)).size();
  ASSERT_EQ(::rename(task_dir(2890).c_str(), (e2e::state_dir() + "/proc/2890/away").c_str()), 0);
  ::mkdir((task_dir(sf) + "0").c_str(), 0755);
  ::mkdir((task_dir(sf) + "binder").c_str(), 0755);
  auto cache = std::make_shared<ProcInfoCache::element_type>();
  std::vector<ProcStats> snapshot = ExtractStatsAllProc(cache);
  EXPECT_EQ(snapshot.size(), threads);
  EXPECT_EQ(cache->size(), snapshot.size());
  expect_whole(snapshot);

  const ProcStats* s = find(snapshot, sf, engine);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->info->comm, "RenderEngine");
  EXPECT_EQ(s->info->cmdline, std::string("/system/bin/surfaceflinger\0", 27));
  EXPECT_EQ(s->time_per_cluster, (ClusterMap<long>{{0, 2008}, {4, 8}}));
  EXPECT_EQ(s->cycles_per_cluster, (ClusterMap<long>{{0, 7 * 300000L + 691200 + 2000},
                                                     {4, 2 * 710400L + 3 * 2419200L + 21}}));

  // Names are read once: a later change of name is not seen.
  e2e::write_file(task_dir(sf) + std::to_string(engine) + "/comm", "renamed\n");
  std::vector<ProcStats> again = ExtractStatsAllProc(cache);
  EXPECT_EQ(find(again, sf, engine)->info->comm, "RenderEngine");
}

// The report's names after threads started, ended and gained time between two ticks. What a
// thread is credited depends on the time between the ticks, so only the names are compared.
TEST(CreditsTick, ThreadsBornAndEndedBetweenTicks) {
  const int ravelin = 2601, home = 2755, shell = 2890;
  emberline::CpuCreditsPlugin plugin;
  ASSERT_TRUE(plugin.init());
  const int ended = find_tid(home, "UnityMain");
  add_ticks(home, ended, 2419200, 100000);
  // Out of the listing as the headset ends a thread: a name that is no number.
  const std::string dir = task_dir(home) + std::to_string(ended), gone = task_dir(home) + ".gone";
  ASSERT_EQ(::rename(dir.c_str(), gone.c_str()), 0);
  // Born under a name that other processes' threads have too.
  const std::string born = start_thread(shell, 4242, "RenderThread", "sh", "cpu0\n300000 100000\n");
  add_ticks(ravelin, find_tid(ravelin, "HeapTaskDaemon"), 300000, 100000);
  add_ticks(home, find_tid(home, "HeapTaskDaemon"), 300000, 100000);
  add_ticks(shell, shell, 300000, 100000);
  let_a_period_pass();
  ASSERT_TRUE(plugin.on_output());
  EXPECT_EQ(names_of(plugin), (std::set<std::string>{"HeapTaskDaemon", "RenderThread", "sh"}));

  // The next period: the born thread is unchanged and so left out; the ended thread's id is back,
  // new again, with its whole count and the name the run first read for it.
  ASSERT_EQ(::rename(gone.c_str(), dir.c_str()), 0);
  let_a_period_pass();
  ASSERT_TRUE(plugin.on_output());
  EXPECT_EQ(names_of(plugin), (std::set<std::string>{"UnityMain"}));
  std::filesystem::remove_all(born);
}

// Once every thread has its identity, an output tick takes a few heap blocks whatever the number
// of threads, and closes every file it opened.
TEST(CreditsTick, SteadyStateTakesAFewHeapBlocksAndKeepsNoDescriptor) {
  // Three hundred more threads, so that a block per thread could not hide in the bound.
  const int pool = 2215;
  std::vector<std::string> added;
  for (int tid = 30000; tid < 30300; ++tid) {
    added.push_back(start_thread(pool, tid, "binder:2215_" + std::to_string(tid), "system_server",
                                 "cpu0\n300000 1\ncpu4\n710400 1\n"));
  }
  emberline::CpuCreditsPlugin plugin;
  ASSERT_TRUE(plugin.init());
  ASSERT_TRUE(plugin.on_output());
  for (const char* name : {"RenderThread", "HeapTaskDaemon", "TimeWarp", "RenderEngine"}) {
    for (int pid : {2131, 2215, 2601, 2755}) {
      const int tid = find_tid(pid, name);
      if (tid > 0) add_ticks(pid, tid, pid == 2215 ? 300000 : 710400, 100000);
    }
  }
  let_a_period_pass();
  const int descriptors = heap_counter::open_descriptors();
  const long before = heap_counter::allocations.load();
  ASSERT_TRUE(plugin.on_output());
  const long allocated = heap_counter::allocations.load() - before;
  EXPECT_EQ(heap_counter::open_descriptors(), descriptors);
  if (heap_counter::kReliable) {
    EXPECT_LE(allocated, 100);
  }
  EXPECT_EQ(plugin.credits()->entries.size(), 4u);
  for (const std::string& dir : added) std::filesystem::remove_all(dir);
}

// A thread that ends after the directory listing has named it leaves its directory without the
// files; the walk must take it as gone.
TEST(ThreadWalk, ThreadsGoneBeforeTheirFilesAreReadAreLeftOutSilently) {
  const int home = 2755;
  struct Case {
    const char* name;
    const char* removed;  // file of the thread that is gone when it is read
    bool named_later;     // the thread shows with an empty name in the next snapshot
  } cases[] = {
      {"counters gone", "time_in_state", false},
      {"name gone", "comm", true},
      {"command line gone", "cmdline", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const int tid = find_tid(home, "UnityMain");
    const std::string file = task_dir(home) + std::to_string(tid) + "/" + c.removed;
    ASSERT_EQ(::rename(file.c_str(), (file + ".away").c_str()), 0);

    auto cache = std::make_shared<ProcInfoCache::element_type>();
    testing::internal::CaptureStderr();
    std::vector<ProcStats> snapshot = ExtractStatsAllProc(cache);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    expect_whole(snapshot);
    EXPECT_EQ(find(snapshot, home, tid), nullptr);
    // Only the rest of that process is missing, never another process's threads.
    std::size_t others = 0;
    for (const ProcStats& s : snapshot) others += s.pid != home;
    EXPECT_EQ(others, threads_on_disk() - entries(task_dir(home)).size());

    ASSERT_EQ(::rename((file + ".away").c_str(), file.c_str()), 0);
    std::vector<ProcStats> next = ExtractStatsAllProc(cache);
    ASSERT_NE(find(next, home, tid), nullptr);
    EXPECT_EQ(find(next, home, tid)->info->comm, c.named_later ? "" : "UnityMain");
  }
}

TEST(CreditsReport, NamesWithOneCreditOrMore) {
  // One tick at 300 MHz on the little cluster is 0.888 credits over a second, one at 691.2 MHz
  // 2.046. Each thread's sum lies far enough from a whole number that a late report does not
  // change its digits.
  const int ravelin = 2601, home = 2755, shell = 2890, zygote = 2160;
  auto change = [&] {
    add_ticks(ravelin, find_tid(ravelin, "RenderThread"), 691200, 1);
    add_ticks(ravelin, find_tid(ravelin, "RenderThread"), 300000, 1);
    add_ticks(home, find_tid(home, "RenderThread"), 300000, 2);  // 3, not 4
    add_ticks(shell, shell, 300000, 2);
    add_ticks(zygote, zygote, 691200, 1);
    add_ticks(zygote, zygote, 300000, 1);
    add_ticks(home, find_tid(home, "Job.Worker 0"), 300000, 1);  // under one
    add_ticks(home, find_tid(home, "HeapTaskDaemon"), 300000, 1);
    add_ticks(ravelin, find_tid(ravelin, "HeapTaskDaemon"), 300000, 1);
    // A thread started within the period counts whole, under its own name.
    start_thread(shell, 4242, "NewThread", "sh", "cpu0\n300000 2\ncpu4\n710400 0\n");
  };
  // The counters change once the run has started, after the snapshot it takes at start; the next
  // is a whole output period later. Charging goes on, so that the run starts at once rather than
  // after the charger settles.
  e2e::Options options;
  options.once_started = change;
  e2e::Result result = e2e::run({"--no-power", "-c", "--credits", "-t", "1"}, options);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(e2e::round_seconds(e2e::mask_times(result.out)),
            "sequence: 1 | timestamp: 1.000 | device_timestamp: <epoch>\n"
            "[Credits] CPU: NewThread:1 | RenderThread:3 | sh:1 | zygote64:2\n------\n");
  EXPECT_EQ(result.err, "Starting 1 second trace. \nPress CTRL-C to stop...\n\n\n");
}

}  // namespace
