#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "trace_fixture.h"

namespace {

using emberline::trace::category_enabled;
using emberline::trace::start_session;
using emberline::trace::stop_session;
using perfetto::CounterTrack;
using perfetto::ProcessTrack;
using perfetto::Track;
using perfetto::TrackEvent;
using perfetto::internal::TrackEventInternal;
using namespace trace_test;

constexpr int kDspThreads = 4;

// The measurement thread: "Watts" counts 0, 1, 2, ...
void measure(int samples) {
  static const CounterTrack watts("Watts");
  for (int i = 0; i < samples; ++i) {
    if (category_enabled()) TrackEvent::Counter(watts, TrackEventInternal::GetTraceTime(), i);
  }
}

// The DSP worker: a track per DSP thread, named on first sight, then slices. It also counts on
// "Watts", 0, -1, -2, ..., so that both threads race for that track's first use.
void dsp_worker(int records) {
  static const CounterTrack watts("Watts");
  std::vector<bool> named(kDspThreads, false);
  for (int i = 0; i < records; ++i) {
    const Track track(100 + i % kDspThreads, ProcessTrack::Current());
    if (!named[i % kDspThreads]) {
      auto descriptor = track.Serialize();
      descriptor.set_name("DSP_THREAD " + std::to_string(100 + i % kDspThreads));
      TrackEvent::SetTrackDescriptor(track, descriptor);
      named[i % kDspThreads] = true;
    }
    const perfetto::DebugAnnotation cycles{"dsp_cycle", i};
    std::uint64_t start = 1000ull * i;
    if (category_enabled()) TrackEvent::SliceBegin(track, {3, start}, "task", &cycles, 1);
    if (category_enabled()) TrackEvent::SliceEnd(track, {3, start + 500}, &cycles, 1);
    if (category_enabled()) TrackEvent::Counter(watts, TrackEventInternal::GetTraceTime(), -i);
  }
}

using TraceThreadsTest = TraceTest;

TEST_F(TraceThreadsTest, TwoWritersProduceOneCleanTrace) {
  constexpr int kCount = 2000;
  ASSERT_TRUE(start_session(path(), true));
  std::thread main_thread(measure, kCount);
  std::thread worker(dsp_worker, kCount);
  main_thread.join();
  worker.join();
  stop_session();

  auto packets = read_trace(path());
  EXPECT_EQ(check_trace(packets).size(), 2u + kDspThreads);
  // Each writer's packets keep their order, on a sequence of their own.
  std::map<std::uint64_t, std::vector<std::int64_t>> watts;
  for (const Message& p : events_on(packets, CounterTrack("Watts").uuid)) {
    watts[*p.varint(kSequenceId)].push_back(*p.message(kTrackEvent)->int64(kIntValue));
  }
  ASSERT_EQ(watts.size(), 2u);
  for (const auto& [sequence, values] : watts) {
    ASSERT_EQ(values.size(), static_cast<std::size_t>(kCount));
    for (std::size_t i = 0; i < values.size(); ++i)
      ASSERT_EQ(std::abs(values[i]), static_cast<std::int64_t>(i));
  }
  for (int t = 0; t < kDspThreads; ++t) {
    EXPECT_EQ(events_on(packets, Track(100 + t, ProcessTrack::Current()).uuid).size(),
              2u * kCount / kDspThreads);
  }
}

// Sessions that start and stop under running writers, as a signal or the time limit ends a run
// at any point: every file is still a whole trace.
TEST_F(TraceThreadsTest, SessionsEndingUnderRunningWritersLeaveWholeTraces) {
  constexpr int kSessions = 20;
  std::atomic<bool> done{false};
  std::thread main_thread([&] {
    while (!done) measure(50);
  });
  std::thread worker([&] {
    while (!done) dsp_worker(50);
  });
  for (int i = 0; i < kSessions; ++i) {
    EXPECT_TRUE(start_session(path(std::to_string(i)), true));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    stop_session();
  }
  done = true;
  main_thread.join();
  worker.join();

  std::size_t events = 0;
  for (int i = 0; i < kSessions; ++i) {
    SCOPED_TRACE(i);
    std::vector<Message> packets;
    ASSERT_NO_THROW(packets = read_trace(path(std::to_string(i))));
    check_trace(packets);
    for (const Message& packet : packets) events += packet.message(kTrackEvent).has_value();
  }
  EXPECT_GT(events, 0u);
}

}  // namespace
