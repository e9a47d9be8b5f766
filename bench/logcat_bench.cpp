// One output of each log plugin with 1,000 new entries in its window, and its two parts: the
// logcat run and the plugin's own reading. Runs inside the simulated headset, whose logcat and
// log buffer it uses (the buffer is replaced):
//   emberline-sim run --frozen -- build/normal/bench/emberline_bench_logcat

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>

#include "device_log.h"
#include "model.h"
#include "plugins/logcat_dsp_plugin.h"
#include "plugins/logcat_ravelin_plugin.h"

namespace emberline {
namespace {

constexpr int kEntries = 1000;
const std::string kBuffer = std::string(sim::kSandboxLogDir) + "/" + std::string(sim::kLogBuffer);
const char* kRavelinCommand = "/system/bin/logcat -s Ravelin:I -v time,year -t ";
const char* kDspCommand = "/system/bin/logcat -s \"Tracking:I\" -v time,year -t ";

// 1,000 entries of each tag, stamped an hour ahead so that a plugin made now has them all in its
// first window; the model's own messages at a varying load.
struct Log {
  std::string buffer, ravelin, tracking;
  Log() {
    const std::string banner = "--------- beginning of main\n";
    ravelin = tracking = banner;
    sim::DeviceState state;
    const sim::LogActivity& activity = state.log;
    auto when = std::chrono::system_clock::now() + std::chrono::hours(1);
    for (int i = 0; i < kEntries; ++i) {
      state.load = (i % 37) / 36.0;
      for (int s = 0; s < 100; ++s) sim::step_log(state, {}, sim::DeviceModel::kStepSeconds);
      when += std::chrono::milliseconds(100);
      const std::string r =
          sim::log_entry(when, 'I', "Ravelin", 2304, sim::ravelin_message(activity));
      const std::string t =
          sim::log_entry(when, 'I', "Tracking", 1187, sim::telemetry_message(activity));
      ravelin += r;
      tracking += t;
      buffer += r + t;
    }
    std::ofstream(kBuffer, std::ios::trunc) << buffer;
  }
};

const Log& planted() {
  static const Log instance;
  return instance;
}

// The plugin reading a memory stream of what logcat prints for it: the tool's own work alone.
template <typename P>
class FromMemory : public P {
 public:
  explicit FromMemory(std::string text) : text(std::move(text)) {}

 protected:
  FILE* open_log(const std::string&) override { return fmemopen(text.data(), text.size(), "r"); }
  void close_log(FILE* stream) override { std::fclose(stream); }

 private:
  std::string text;
};

// CPU time of the finished children (shell and logcat), which the benchmark's own CPU column
// leaves out, in milliseconds.
double children_cpu_ms() {
  rusage usage{};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

void count_children(benchmark::State& state, double since) {
  state.counters["children_cpu_ms"] =
      benchmark::Counter(children_cpu_ms() - since, benchmark::Counter::kAvgIterations);
}

template <typename P>
void output(benchmark::State& state, std::unique_ptr<P> (*make)()) {
  planted();
  const double since = children_cpu_ms();
  for (auto _ : state) {
    // Each output moves the window past the entries, so every round starts a fresh plugin.
    state.PauseTiming();
    std::unique_ptr<P> plugin = make();
    plugin->init();
    state.ResumeTiming();
    plugin->on_output();
    state.PauseTiming();
    plugin.reset();
    state.ResumeTiming();
  }
  count_children(state, since);
}

void BM_RavelinOutput(benchmark::State& state) {
  output<LogcatRavelinPlugin>(state, [] { return std::make_unique<LogcatRavelinPlugin>(); });
}
void BM_RavelinParse(benchmark::State& state) {
  output<LogcatRavelinPlugin>(state, [] {
    return std::unique_ptr<LogcatRavelinPlugin>(
        new FromMemory<LogcatRavelinPlugin>(planted().ravelin));
  });
}
void BM_DspOutput(benchmark::State& state) {
  output<LogcatDspPlugin>(state, [] { return std::make_unique<LogcatDspPlugin>(); });
}
void BM_DspParse(benchmark::State& state) {
  output<LogcatDspPlugin>(state, [] {
    return std::unique_ptr<LogcatDspPlugin>(new FromMemory<LogcatDspPlugin>(planted().tracking));
  });
}

// The logcat run alone: started through the shell, read to its end, waited for. With a window
// past every entry it prints nothing (process start and the buffer's scan); from the beginning,
// the plugin's 1,000 entries.
void logcat_run(benchmark::State& state, const char* prefix, const char* window) {
  planted();
  const std::string command = std::string(prefix) + "'" + window + "'";
  char line[512];
  const double since = children_cpu_ms();
  for (auto _ : state) {
    FILE* pipe = ::popen(command.c_str(), "r");
    while (std::fgets(line, sizeof line, pipe) != nullptr) benchmark::DoNotOptimize(line);
    ::pclose(pipe);
  }
  count_children(state, since);
}
void BM_LogcatStartOnly(benchmark::State& state) {
  logcat_run(state, kRavelinCommand, "2999-01-01 00:00:00.000");
}
void BM_LogcatRavelin1000(benchmark::State& state) {
  logcat_run(state, kRavelinCommand, "2000-01-01 00:00:00.000");
}
void BM_LogcatDsp1000(benchmark::State& state) {
  logcat_run(state, kDspCommand, "2000-01-01 00:00:00.000");
}

BENCHMARK(BM_RavelinOutput)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RavelinParse)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DspOutput)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DspParse)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LogcatStartOnly)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LogcatRavelin1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LogcatDsp1000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace emberline
