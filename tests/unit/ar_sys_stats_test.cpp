#include "ar_sys_stats/ar_sys_stats.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iomanip>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <vector>

#include "plugins/cpu_credits_plugin.h"

namespace {

using namespace ArSysStats;
using namespace std::string_literals;
using std::chrono::microseconds;

// Each text is also fed as a read would give it, in pieces cut anywhere: a line may end in the
// next piece, or a piece may end right before or after a line end.
TEST(TimeInState, BooksTimeAndCyclesByTheClusterAbove) {
  using Sums = ClusterMap<long>;
  struct Case {
    std::string text;
    Sums time, cycles;
  } cases[] = {
      {"cpu0\n300000 10\n600000 5\ncpu4\n1000000 2\n",
       {{0, 15}, {4, 2}},
       {{0, 6000000}, {4, 2000000}}},
      {"300000 4\ncpu2\n100 1\n", {{-1, 4}, {2, 1}}, {{-1, 1200000}, {2, 100}}},
      // One digit names the cluster; a repeated name adds up; a name alone books nothing.
      {"cpu12\n10 3\ncpu1\n20 1\ncpu5", {{1, 4}}, {{1, 50}}},
      {"cpu\n7 1\ncpu4\ncpu0\n", {{-48, 1}}, {{-48, 7}}},
      // A line without numbers counts as zeros, one with a single number as that frequency.
      {"cpu7\ngarbage\n5000\n8 -2\n", {{7, -2}}, {{7, -16}}},
      {"cpu3\n\n", {{3, 0}}, {{3, 0}}},
      // The line as a C string: what follows a NUL is not read.
      {"cpu6\n2\0 9\n3 1\ncp\0u5\n1 1\n"s, {{6, 2}}, {{6, 4}}},
      // The longest line that fits the buffer counts, at the end of the file too; one character
      // more ends the reading.
      {"cpu0\n" + std::string(1020, ' ') + "5 2\ncpu4\n1 1\n", {{0, 2}, {4, 1}}, {{0, 10}, {4, 1}}},
      {"cpu0\n1 1\n" + std::string(1020, ' ') + "5 2", {{0, 3}}, {{0, 11}}},
      {"cpu0\n1 1\n" + std::string(1021, ' ') + "5 2\n2 2\n", {{0, 1}}, {{0, 1}}},
      {"cpu0\n1 1\n" + std::string(1021, ' ') + "5 2", {{0, 1}}, {{0, 1}}},
      // Six clusters: more than a record holds inside itself.
      {"cpu0\n1 1\ncpu9\n1 2\ncpu5\n1 3\ncpu2\n1 4\ncpu7\n1 5\ncpu1\n1 6\n",
       {{0, 1}, {1, 6}, {2, 4}, {5, 3}, {7, 5}, {9, 2}},
       {{0, 1}, {1, 6}, {2, 4}, {5, 3}, {7, 5}, {9, 2}}},
      {"", {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    ProcStats whole;
    parseTimeInState(c.text, &whole, false);
    EXPECT_EQ(whole.time_per_cluster, c.time);
    EXPECT_EQ(whole.cycles_per_cluster, c.cycles);
    EXPECT_TRUE(whole.time_per_freq.empty());
    for (std::size_t size : {1, 2, 3, 5, 1023, 1024, 1025}) {
      ProcStats pieces;
      TimeInStateParser parser(&pieces, false);
      for (std::size_t at = 0; at < c.text.size(); at += size) {
        if (!parser.feed(std::string_view(c.text).substr(at, size))) break;
      }
      parser.finish();
      EXPECT_EQ(pieces.time_per_cluster, c.time) << "pieces of " << size;
      EXPECT_EQ(pieces.cycles_per_cluster, c.cycles) << "pieces of " << size;
    }
  }
}

TEST(TimeInState, NumbersAreReadAsSscanfReadsThem) {
  // clang-format off
  const char* lines[] = {"300000 10", "  7\t-3 ", "5-3", "+4 +2", "abc 5", "5 abc", "- 5", "5e3 2",
                         "0x10 1", "", "   ", "010 08", "-0 -", "99999999999999999999 3",
                         "1 -99999999999999999999", "9223372036854775807 -9223372036854775808",
                         "9223372036854775808 -9223372036854775809", "\v\f\r12\n34", "++1 2",
                         "1+2", "+", "18446744073709551616 1", "-18446744073709551615 -1",
                         "123456789012345678 123456789012345678", "1234567890123456789 12",
                         "12 1234567890123456789", "12 34 ", "12 34\n", "12  34", "12\t34",
                         "1234567 12345678", "1234567 123456789", "1 2345678", "1234567 1",
                         "1 1 1 1 1", "12345678 1", "300000 1a", "300000 1\x80", "300000 +1",
                         "300000 -1", "\xb0\xb1 12345678", "0000000 00000000", "9999999 99999999"};
  // clang-format on
  for (const char* line : lines) {
    long freq = 0, time = 0, want_freq = 0, want_time = 0;
    std::sscanf(line, "%ld%ld", &want_freq, &want_time);
    scanTwoLongs(line, &freq, &time);
    EXPECT_EQ(freq, want_freq) << line;
    EXPECT_EQ(time, want_time) << line;
  }
  // Nothing past the end of the text is read.
  long freq = 0, time = 0;
  scanTwoLongs(std::string_view("12 34", 4), &freq, &time);
  EXPECT_EQ(std::pair(freq, time), std::pair(12L, 3L));
  freq = time = 0;
  scanTwoLongs(std::string_view("12 ", 3), &freq, &time);
  EXPECT_EQ(std::pair(freq, time), std::pair(12L, 0L));
}

// The map of a record reads and writes as std::map does, in and past the entries it holds
// inside itself, and through copies and moves.
TEST(ClusterMapTest, BehavesAsAnOrderedMap) {
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    ClusterMap<long> map;
    std::map<int, long> want;
    const int clusters = 1 + round % 9;
    for (int step = 0; step < 12; ++step) {
      const int cluster = static_cast<int>(random() % clusters) - 1 - (round % 3 == 0 ? 170 : 0);
      const long value = static_cast<long>(random() % 1000) - 500;
      map[cluster] += value;
      want[cluster] += value;
    }
    auto same = [&](const ClusterMap<long>& m) {
      const std::vector<std::pair<int, long>> expected(want.begin(), want.end());
      std::vector<std::pair<int, long>> entries;
      for (const auto& [cluster, value] : m) entries.emplace_back(cluster, value);
      EXPECT_EQ(entries, expected);
      EXPECT_EQ(m.size(), want.size());
      for (int cluster = -172; cluster < 10; ++cluster) {
        auto found = m.find(cluster);
        ASSERT_EQ(found != m.end(), want.count(cluster) == 1) << cluster;
        if (found != m.end()) {
          EXPECT_EQ(found->second, want[cluster]);
        }
      }
    };
    same(map);
    ClusterMap<long> copy(map);
    same(copy);
    ClusterMap<long> small{{3, 1}}, large{{0, 1}, {1, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 1}};
    small = map;
    large = map;
    same(small);
    same(large);
    ClusterMap<long> moved(std::move(copy));
    same(moved);
    EXPECT_TRUE(copy.empty());
    copy = std::move(moved);
    same(copy);
    EXPECT_EQ(copy, map);
    map.clear();
    EXPECT_TRUE(map.empty());
    EXPECT_TRUE(map.begin() == map.end());
    map[5] = 9;
    EXPECT_EQ(map, (ClusterMap<long>{{5, 9}}));
    EXPECT_FALSE(map == copy);
  }
}

// Each thread's entry is found whatever the walk's order: the last tick's, with threads ended and
// born, or shuffled.
TEST(ThreadMapTest, FindsEachThreadsEntryWhateverTheOrder) {
  std::mt19937 random(3);
  ThreadMap<int> map;
  std::map<std::pair<int, int>, int> want;
  std::vector<std::pair<int, int>> walk;
  for (int tick = 0; tick < 300; ++tick) {
    for (int change = random() % 8; change > 0; --change) {
      const std::pair<int, int> born(static_cast<int>(random() % 50) - 5,
                                     static_cast<int>(random() % 4000) - 10);
      walk.insert(walk.begin() + static_cast<long>(random() % (walk.size() + 1)), born);
      if (random() % 2 == 0) walk.erase(walk.begin() + static_cast<long>(random() % walk.size()));
    }
    if (tick % 50 == 49) std::shuffle(walk.begin(), walk.end(), random);
    for (const auto& thread : walk) {
      const auto [entry, made] = map.try_emplace(thread);
      ASSERT_EQ(made, want.count(thread) == 0);
      if (made) entry->second = want[thread] = static_cast<int>(random());
      ASSERT_EQ(entry->first, thread);
      ASSERT_EQ(entry->second, want[thread]);
    }
    ASSERT_EQ(map.size(), want.size());
  }
  for (const auto& [thread, value] : want) EXPECT_EQ(map.find(thread)->second, value);
  EXPECT_EQ(map.find({-6, 0}), nullptr);
}

TEST(CyclesToCredit, WeighsCyclesPerMillisecondByTheClusterFactor) {
  struct Case {
    ClusterMap<long> cycles;
    long long micros;
    ChipsetType chipset;
    double credits;
    ClusterMap<double> per_cluster;
  } cases[] = {
      {{{4, 100000000}}, 1000000, ChipsetType::EIGHT_CORE, 905.0, {{4, 905.0}}},
      {{{0, 100000000}}, 1000000, ChipsetType::EIGHT_CORE, 296.0, {{0, 296.0}}},
      // clang-format off
      {{{3, 1000000}, {7, 2000000}}, 2000000, ChipsetType::EIGHT_CORE, 1.48 + 9.05,
       {{3, 1.48}, {7, 9.05}}},
      // clang-format on
      {{{5, 5000000}}, 1000000, ChipsetType::SIX_CORE, 46.725, {{5, 46.725}}},
      // Whole milliseconds only: 1999 us count as one.
      {{{0, 1000}}, 1999, ChipsetType::EIGHT_CORE, 2.96, {{0, 2.96}}},
      {{}, 1000000, ChipsetType::EIGHT_CORE, 0.0, {}},
      // A cluster the chip does not have voids the thread; what came before it stays.
      {{{0, 1000000}, {6, 1000000}}, 1000000, ChipsetType::SIX_CORE, -1.0, {{0, 9.345}}},
      {{{-1, 1000000}}, 1000000, ChipsetType::EIGHT_CORE, -1.0, {}},
  };
  for (const auto& c : cases) {
    ClusterMap<double> per_cluster{{9, 1.0}};
    double credits = cyclesToCredit(c.cycles, microseconds(c.micros), c.chipset, &per_cluster);
    EXPECT_NEAR(credits, c.credits, 1e-9);
    ASSERT_EQ(per_cluster.size(), c.per_cluster.size());
    for (const auto& [cluster, credit] : c.per_cluster) {
      EXPECT_NEAR(per_cluster[cluster], credit, 1e-9) << cluster;
    }
    EXPECT_NEAR(cyclesToCredit(c.cycles, microseconds(c.micros), c.chipset, nullptr), c.credits,
                1e-9);
  }
}

ProcStats thread(int pid, int tid, long long at_us, ClusterMap<long> cycles,
                 ClusterMap<long> time = {}) {
  ProcStats s;
  s.pid = pid;
  s.tid = tid;
  s.info = std::make_shared<ProcInfo>();
  s.info->comm = "t" + std::to_string(tid);
  s.timestamp = TimePoint(microseconds(at_us));
  s.cycles_per_cluster = std::move(cycles);
  s.time_per_cluster = std::move(time);
  return s;
}

// A delta as one line: the thread, whether it is new, microseconds, credits, then cycles (c),
// times (t) and credits (k) by cluster.
std::string summary(const ProcStats& d) {
  std::ostringstream out;
  out << std::setprecision(12) << d.pid << "/" << d.tid << (d.is_new ? " new " : " ")
      << d.duration.count() << "us " << d.credits;
  for (auto [cluster, n] : d.cycles_per_cluster) out << " c" << cluster << "=" << n;
  for (auto [cluster, n] : d.time_per_cluster) out << " t" << cluster << "=" << n;
  for (auto [cluster, x] : d.credits_per_cluster) out << " k" << cluster << "=" << x;
  return out.str();
}

std::vector<std::string> summaries(const std::vector<ProcStats>& deltas) {
  std::vector<std::string> lines;
  std::transform(deltas.begin(), deltas.end(), std::back_inserter(lines), summary);
  return lines;
}

TEST(SnapshotDelta, PairsThreadsAndCreditsTheirDifferences) {
  // Earlier snapshot at 1 s, later at 2 s; the first element of the earlier one sets the start of
  // threads that are new.
  std::vector<ProcStats> earlier{
      thread(10, 11, 1000000, {{0, 1000000}}, {{0, 5}}),
      thread(10, 10, 1000500, {{0, 500000}, {4, 100}}, {{0, 2}, {4, 1}}),
      thread(20, 20, 1001000, {{0, 9}}),  // ends before the later snapshot
      thread(30, 30, 1001000, {{4, 100}}),
  };
  std::vector<ProcStats> later{
      thread(30, 30, 1001000, {{4, 100000100}}),  // read at the same instant: no duration
      thread(10, 10, 2000500, {{0, 2500000}, {4, 100}}, {{0, 9}, {4, 1}}),
      thread(10, 11, 2000000, {{0, 1000000}, {4, 1000000}}, {{0, 5}, {4, 4}}),
      thread(40, 41, 1500000, {{4, 200000}}),
  };
  std::vector<ProcStats> deltas = ProcSnapshotDelta(earlier, later, ChipsetType::EIGHT_CORE, true);
  EXPECT_EQ(summaries(deltas), (std::vector<std::string>{
                                   // 1e6 cycles on cluster 4 over 1000 ms, then 2e6 on cluster 0.
                                   "10/11 1000000us 9.05 c0=0 c4=1000000 t0=0 t4=4 k0=0 k4=9.05",
                                   "10/10 1000000us 5.92 c0=2000000 c4=0 t0=7 t4=0 k0=5.92 k4=0",
                                   // New: its whole count, since the earlier snapshot's start.
                                   "40/41 new 500000us 3.62 c4=200000 k4=3.62",
                                   "30/30 0us -1 c4=100000000",
                               }));
  EXPECT_EQ(deltas.at(1).info, later[1].info);
  EXPECT_EQ(deltas[1].timestamp, TimePoint());

  EXPECT_TRUE(ProcSnapshotDelta({}, later, ChipsetType::EIGHT_CORE, false).empty());
  EXPECT_TRUE(ProcSnapshotDelta(earlier, {}, ChipsetType::EIGHT_CORE, false).empty());
}

// Snapshots in any order, with threads met twice, threads gone and born, threads read at the same
// instant or with the clock set back, against the pairing done over a map: the same differences,
// most credits first.
TEST(SnapshotDelta, PairsAnyOrderAsAMapWould) {
  std::mt19937 random(11);
  auto snapshot = [&](long long at_us) {
    std::vector<ProcStats> threads(random() % 40);
    for (ProcStats& s : threads) {
      ClusterMap<long> cycles;
      for (int cluster : {0, 4, 9}) {
        if (random() % 3 == 0) cycles[cluster == 9 && random() % 4 != 0 ? 7 : cluster] = random();
      }
      const long long jitter = static_cast<long long>(random() % 5) * 500 - 1000;
      s = thread(static_cast<int>(random() % 5), static_cast<int>(random() % 7) - 1,
                 random() % 6 == 0 ? at_us - 1000000 : at_us + jitter, std::move(cycles));
    }
    return threads;
  };
  for (int round = 0; round < 300; ++round) {
    const std::vector<ProcStats> earlier = snapshot(1000000), later = snapshot(2000000);
    std::vector<std::string> want;
    if (!earlier.empty() && !later.empty()) {
      std::map<std::pair<int, int>, std::pair<ProcStats, ProcStats>> both;
      for (const ProcStats& s : earlier) both[{s.pid, s.tid}].first = s;
      for (const ProcStats& s : later) both[{s.pid, s.tid}].second = s;
      for (auto& [key, sides] : both) {
        if (sides.second.tid == -1) continue;
        ProcStats d = procStatsDelta(sides.first, sides.second, earlier.front().timestamp);
        if (d.duration.count() != 0) {
          d.credits = cyclesToCredit(d.cycles_per_cluster, d.duration, ChipsetType::EIGHT_CORE,
                                     &d.credits_per_cluster);
        }
        want.push_back(summary(d));
      }
    }
    const std::vector<ProcStats> deltas =
        ProcSnapshotDelta(earlier, later, ChipsetType::EIGHT_CORE, true);
    std::vector<std::string> got = summaries(deltas);
    for (std::size_t i = 1; i < deltas.size(); ++i) {
      if (!std::isnan(deltas[i].credits)) {
        EXPECT_GE(deltas[i - 1].credits, deltas[i].credits) << round << ": " << got[i];
      }
    }
    std::sort(want.begin(), want.end());
    std::sort(got.begin(), got.end());
    ASSERT_EQ(got, want) << round;
  }
}

// Times kept by frequency, when asked, subtract where both snapshots have them.
TEST(SnapshotDelta, PerFrequencyTimesSubtractWhereBothHaveThem) {
  ProcStats earlier = thread(1, 1, 0, {}), later = thread(1, 1, 1000, {});
  parseTimeInState("cpu0\n300 5\n600 1\n", &earlier, true);
  parseTimeInState("cpu0\n300 9\n900 2\ncpu4\n1000 3\n", &later, true);
  ProcStats delta = procStatsDelta(earlier, later, TimePoint());
  std::map<int, std::map<long, long>> expected{{0, {{300, 4}, {900, 2}}}, {4, {{1000, 3}}}};
  EXPECT_EQ(delta.time_per_freq, expected);
  EXPECT_EQ(delta.duration, microseconds(1000));
  EXPECT_EQ(delta.credits, -1.0);
}

// A thread whose cycles on cluster 0 of the eight-core chip come to `credits` over one second.
ProcStats credited(int tid, const std::string& comm, double credits, long long at_us) {
  ProcStats s = thread(100, tid, at_us, {{0, std::lround(credits / 0.296 * 100.0 * 1000.0)}});
  s.info->comm = comm;
  return s;
}

// One plugin over successive reports: each shows exactly its own names.
TEST(CpuCredits, SumsThreadsOfOneNameTruncatingAtEachStep) {
  struct Case {
    std::vector<std::pair<std::string, double>> threads;
    std::string text;
  } cases[] = {
      {{{"RenderThread", 2.7}, {"RenderThread", 1.6}}, "RenderThread:3"},
      {{{"sh", 0.9}, {"sh", 0.9}, {"zygote", 1.01}}, "zygote:1"},
      {{{"b", 5.5}, {"a", 1.2}, {"", 2.5}, {"b", 0.99}, {"a", 40.7}}, ":2 | a:41 | b:5"},
      {{{"c", 1.0}, {"a", 3.5}}, "a:3 | c:1"},
      {{{"idle", 0.0}}, ""},
      {{}, ""},
      {{{"a", 7.2}}, "a:7"},
  };
  emberline::CpuCreditsPlugin plugin;
  plugin.credits()->set("stale", coralis::tidemark::json::JsonVal(9));
  for (const auto& c : cases) {
    std::vector<ProcStats> earlier{credited(1, "anchor", 0, 0)},
        later{credited(1, "anchor", 0, 1000000)};
    int tid = 2;
    for (const auto& [comm, credits] : c.threads) {
      earlier.push_back(credited(tid, comm, 0, 0));
      later.push_back(credited(tid++, comm, credits, 1000000));
    }
    plugin.Report(earlier, later);
    EXPECT_EQ(plugin.credits()->to_str(), c.text);
  }
}

TEST(CpuCredits, ThreadsThatCannotBeWeighedAreLeftOutAndHugeOnesHeld) {
  std::vector<ProcStats> earlier{credited(1, "same_instant", 0, 0),
                                 credited(2, "odd_cluster", 0, 0), credited(3, "under_1ms", 0, 0),
                                 credited(4, "huge", 0, 0)};
  std::vector<ProcStats> later{credited(1, "same_instant", 50, 0),
                               credited(2, "odd_cluster", 50, 1000000),
                               credited(3, "under_1ms", 0, 500), credited(4, "huge", 0, 1000000)};
  later[1].cycles_per_cluster[9] = 1;
  later[3].cycles_per_cluster[4] = 1L << 62;
  emberline::CpuCreditsPlugin plugin;
  plugin.Report(earlier, later);
  EXPECT_EQ(plugin.credits()->to_json(), "{\"huge\":2147483647}");
}

}  // namespace
