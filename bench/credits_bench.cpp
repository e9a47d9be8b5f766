// The credits plugin's work at one output tick against the syscall floor, run inside the
// simulated headset (bench/README.md). Every figure is also given per thread.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstddef>
#include <cstdlib>

#include "ar_sys_stats/ar_sys_stats.h"
#include "plugins/cpu_credits_plugin.h"
#include "thread_floor.h"

// Every heap allocation of the process is counted, C runtime included.
extern "C" void* __libc_malloc(std::size_t);
extern "C" void* __libc_calloc(std::size_t, std::size_t);
extern "C" void* __libc_realloc(void*, std::size_t);
namespace {
thread_local long allocations = 0;
}
extern "C" void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
extern "C" void* calloc(std::size_t n, std::size_t size) {
  ++allocations;
  return __libc_calloc(n, size);
}
extern "C" void* realloc(void* p, std::size_t size) {
  ++allocations;
  return __libc_realloc(p, size);
}

namespace {

using namespace ArSysStats;

// User CPU time of this thread in seconds: the tool's own share of a step, apart from the
// kernel's, which a busy machine inflates far more.
double user_seconds() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec) + usage.ru_utime.tv_usec / 1e6;
}

ProcInfoCache warm_cache() {
  auto cache = std::make_shared<ProcInfoCache::element_type>();
  ExtractStatsAllProc(cache);  // names are read once per run, not per tick
  return cache;
}

void per_thread(benchmark::State& state, std::size_t threads, long allocated, double user) {
  const double visits = static_cast<double>(threads) * static_cast<double>(state.iterations());
  state.counters["threads"] = static_cast<double>(threads);
  state.counters["per_thread"] =
      benchmark::Counter(visits, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["user_per_thread"] = user / visits;
  state.counters["allocs"] =
      static_cast<double>(allocated) / static_cast<double>(state.iterations());
}

void BM_Floor(benchmark::State& state) {
  long threads = 0;
  long before = allocations;
  const double user = user_seconds();
  for (auto _ : state) threads = thread_floor_read_all();
  per_thread(state, static_cast<std::size_t>(threads), allocations - before, user_seconds() - user);
}

void BM_Snapshot(benchmark::State& state) {
  ProcInfoCache cache = warm_cache();
  std::size_t threads = 0;
  long before = allocations;
  const double user = user_seconds();
  for (auto _ : state) {
    std::vector<ProcStats> snapshot = ExtractStatsAllProc(cache);
    threads = snapshot.size();
    benchmark::DoNotOptimize(snapshot.data());
  }
  per_thread(state, threads, allocations - before, user_seconds() - user);
}

void BM_Delta(benchmark::State& state) {
  ProcInfoCache cache = warm_cache();
  std::vector<ProcStats> earlier = ExtractStatsAllProc(cache);
  std::vector<ProcStats> later = ExtractStatsAllProc(cache);
  long before = allocations;
  const double user = user_seconds();
  for (auto _ : state) {
    std::vector<ProcStats> deltas =
        ProcSnapshotDelta(earlier, later, ChipsetType::EIGHT_CORE, true);
    benchmark::DoNotOptimize(deltas.data());
  }
  per_thread(state, later.size(), allocations - before, user_seconds() - user);
}

// A whole output tick of the plugin: snapshot, delta, the map, and the report's text.
void BM_OutputTick(benchmark::State& state) {
  emberline::CpuCreditsPlugin plugin;
  plugin.init();
  std::size_t threads = ExtractStatsAllProc(warm_cache()).size();
  long before = allocations;
  const double user = user_seconds();
  for (auto _ : state) {
    plugin.on_output();
    benchmark::DoNotOptimize(plugin.to_str());
  }
  per_thread(state, threads, allocations - before, user_seconds() - user);
}

BENCHMARK(BM_Floor)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Snapshot)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Delta)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OutputTick)->Unit(benchmark::kMicrosecond);

}  // namespace
