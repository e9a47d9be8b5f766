#include <map>
#include <thread>

#include "trace_fixture.h"

namespace {

using namespace perfetto;
using namespace trace_test;

// The measurement thread and the DSP worker write at once, racing for the first use of each track:
// the trace must still decode, with each writer's events all there and in order.
TEST_F(TraceTest, TwoWritersProduceOneCleanTrace) {
  constexpr int kCount = 4000;
  ASSERT_TRUE(emberline::trace::start_session(path(), true));
  auto write = [] {
    const CounterTrack watts("Watts");
    for (int i = 0; i < kCount; ++i) {
      TrackEvent::SliceBegin(Track(i, ProcessTrack::Current()), {3, 1000ull * i}, "task");
      TrackEvent::Counter(watts, internal::TrackEventInternal::GetTraceTime(), i);
    }
  };
  std::thread measurement(write), worker(write);
  measurement.join();
  worker.join();
  emberline::trace::stop_session();

  auto packets = read_trace(path());
  EXPECT_EQ(check_trace(packets).size(), 2u + kCount);
  EXPECT_EQ(packets.size(), 3u + 5 * kCount);  // a snapshot, descriptors, events
  std::map<std::uint64_t, std::int64_t> next;  // each writer's count, on its own sequence
  for (const Message& packet : packets) {
    auto event = packet.message(kTrackEvent);
    if (!event || event->varint(kType) != kCounter) continue;
    ASSERT_EQ(event->int64(kIntValue), next[packet.varint(kSequenceId).value_or(0)]++);
  }
  EXPECT_EQ(next.size(), 2u);
}

}  // namespace
