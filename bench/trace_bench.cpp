// Cost of one trace point, as a plugin writes it: with no session, and with a session writing to
// /dev/null (encoding, bookkeeping and the system call) or to a file in $TMPDIR (plus the file
// system). Runs anywhere:
//   build/normal/bench/emberline_bench_trace

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/trace/perfetto.h"

namespace {

using perfetto::TrackEvent;

enum Sink { kNoSession, kDevNull, kFile };

// Opens the session the benchmark asks for; the returned path, if any, is removed afterwards.
std::string start(benchmark::State& state) {
  switch (static_cast<Sink>(state.range(0))) {
    case kNoSession:
      return {};
    case kDevNull:
      if (!emberline::trace::start_session("/dev/null", true)) state.SkipWithError("/dev/null");
      return {};
    case kFile: {
      std::string path = std::filesystem::temp_directory_path() /
                         ("emberline-bench-" + std::to_string(getpid()) + ".perfetto-trace");
      if (!emberline::trace::start_session(path, true)) state.SkipWithError("no temp file");
      return path;
    }
  }
  return {};
}

void finish(const std::string& path) {
  emberline::trace::stop_session();
  if (!path.empty()) std::filesystem::remove(path);
}

void BM_Counter(benchmark::State& state) {
  static const perfetto::CounterTrack track("Watts");
  std::string path = start(state);
  float value = 1.5f;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    emberline::trace::emit_counter(track, value);
  }
  finish(path);
}
BENCHMARK(BM_Counter)->ArgName("sink")->Arg(kNoSession)->Arg(kDevNull)->Arg(kFile);

// A DSP record: a begin and an end slice with five annotations each.
void BM_DspSlicePair(benchmark::State& state) {
  static const perfetto::Track track(7, perfetto::ProcessTrack::Current());
  const perfetto::DebugAnnotation annotations[] = {{"dsp_cycle", 120000},
                                                   {"dsp_udma", 4},
                                                   {"dsp_hmx", 0},
                                                   {"dsp_pkts", 900},
                                                   {"dsp_hvx_pkt", 31}};
  std::string path = start(state);
  std::uint64_t start_ns = perfetto::internal::TrackEventInternal::GetTraceTime();
  for (auto _ : state) {
    if (!emberline::trace::category_enabled()) continue;
    TrackEvent::SliceBegin(track, {perfetto::protos::pbzero::BUILTIN_CLOCK_MONOTONIC, start_ns},
                           "conv2d", annotations, 5);
    TrackEvent::SliceEnd(track, {perfetto::protos::pbzero::BUILTIN_CLOCK_MONOTONIC, start_ns + 1},
                         annotations, 5);
    start_ns += 2;
  }
  finish(path);
}
BENCHMARK(BM_DspSlicePair)->ArgName("sink")->Arg(kDevNull);

}  // namespace
