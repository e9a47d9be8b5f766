#include <unistd.h>

#include <limits>

#include "trace_fixture.h"

namespace {

using emberline::trace::start_session;
using emberline::trace::stop_session;
using perfetto::CounterTrack;
using perfetto::ProcessTrack;
using perfetto::Track;
using perfetto::TrackEvent;
using namespace trace_test;

constexpr std::uint32_t kMonotonic = perfetto::protos::pbzero::BUILTIN_CLOCK_MONOTONIC;
std::uint64_t now() {
  return perfetto::internal::TrackEventInternal::GetTraceTime();
}

void name_track(const Track& track, const char* name) {
  auto descriptor = track.Serialize();
  descriptor.set_name(name);
  TrackEvent::SetTrackDescriptor(track, descriptor);
}

using TraceEventsTest = TraceTest;

// Counters as the plugins write them and slices as the DSP worker does, with values and names
// at the edges of the wire format: ten-byte varints, message lengths around one byte's limit and
// far beyond it.
TEST_F(TraceEventsTest, CountersAndSlicesAsWritten) {
  using limits = std::numeric_limits<std::int64_t>;
  const CounterTrack watts("Watts");
  const std::string watts_name = "Watts";  // another plugin's object and pointer, the same track
  const CounterTrack bandwidth("CPU BW utilized MB/s");
  const Track dsp7(7, ProcessTrack::Current());
  const Track dsp9(9, ProcessTrack::Current());
  const Track unnamed(11, ProcessTrack::Current());
  ASSERT_EQ(CounterTrack(watts_name.c_str()).uuid, watts.uuid);
  ASSERT_EQ(Track(7, ProcessTrack::Current()).uuid, dsp7.uuid);
  const std::vector<double> doubles = {1.25, -2.5, 1e300, std::numeric_limits<double>::min()};
  const std::vector<std::int64_t> ints = {4000, -1, 128, limits::min(), limits::max()};
  const perfetto::DebugAnnotation annotations[] = {
      {"dsp_cycle", -5}, {"dsp_udma", limits::max()}, {"dsp_hmx", 128}};
  std::vector<std::string> long_names;
  for (std::size_t length = 100; length <= 140; ++length) long_names.emplace_back(length, 'n');
  long_names.emplace_back(20000, 'n');

  name_track(dsp7, "DSP_THREAD 7");  // before the session: kept for the track's first use
  ASSERT_TRUE(start_session(path(), true));
  std::uint64_t before = now();
  for (std::size_t i = 0; i < doubles.size(); ++i) {
    TrackEvent::Counter(i % 2 ? watts : CounterTrack(watts_name.c_str()), now(), doubles[i]);
  }
  TrackEvent::Counter(bandwidth, now(), 4000u);
  for (std::size_t i = 1; i < ints.size(); ++i) TrackEvent::Counter(bandwidth, now(), ints[i]);
  std::uint64_t after = now();
  name_track(dsp9, "DSP_THREAD 9");  // during the session: written at once
  TrackEvent::SliceBegin(dsp7, {kMonotonic, 1000}, "conv2d", annotations, 3);
  TrackEvent::SliceEnd(dsp7, {kMonotonic, 3500000}, annotations, 3);
  for (const std::string& name : long_names) {
    TrackEvent::SliceBegin(unnamed, {kMonotonic, 2000}, name.c_str());
  }
  name_track(dsp9, "DSP_THREAD 9");  // unchanged: nothing more to write
  stop_session();

  auto packets = read_trace(path());
  auto tracks = check_trace(packets);
  ASSERT_EQ(tracks.size(), 6u);
  EXPECT_EQ(tracks[0].varint(kUuid), Track::process_uuid());
  EXPECT_EQ(tracks[0].message(kProcess)->int64(1), getpid());
  struct Expected {
    std::uint64_t uuid;
    std::optional<std::string> name;
    bool counter;
  };
  const Expected expected[] = {{watts.uuid, "Watts", true},
                               {bandwidth.uuid, "CPU BW utilized MB/s", true},
                               {dsp9.uuid, "DSP_THREAD 9", false},
                               {dsp7.uuid, "DSP_THREAD 7", false},
                               {unnamed.uuid, {}, false}};
  for (std::size_t i = 0; i < std::size(expected); ++i) {  // in order of first use
    SCOPED_TRACE(i);
    EXPECT_EQ(tracks[i + 1].varint(kUuid), expected[i].uuid);
    EXPECT_EQ(tracks[i + 1].text(kName), expected[i].name);
    EXPECT_EQ(tracks[i + 1].varint(kParent), Track::process_uuid());
    EXPECT_EQ(tracks[i + 1].message(kCounterInfo).has_value(), expected[i].counter);
  }

  // Counters: no name, trace time on the monotonic clock, the value in the field of its type.
  std::uint64_t last = before;
  std::vector<double> read_doubles;
  std::vector<std::int64_t> read_ints;
  for (const Message& packet : packets) {
    auto event = packet.message(kTrackEvent);
    if (!event || event->varint(kType) != kCounter) continue;
    EXPECT_FALSE(event->text(kEventName));
    EXPECT_EQ(packet.varint(kClockId), kMonotonic);
    EXPECT_GE(packet.varint(kTimestamp), last);
    last = packet.varint(kTimestamp).value_or(0);
    if (event->varint(kTrackUuid) == watts.uuid) {
      EXPECT_FALSE(event->varint(kIntValue));
      read_doubles.push_back(event->fixed_double(kDoubleValue).value_or(0));
    } else {
      EXPECT_FALSE(event->fixed_double(kDoubleValue));
      read_ints.push_back(event->int64(kIntValue).value_or(0));
    }
  }
  EXPECT_LE(last, after);
  EXPECT_EQ(read_doubles, doubles);
  EXPECT_EQ(read_ints, ints);

  // Slices: explicit times, the name on the begin only, the annotations on both ends.
  auto slices = events_on(packets, dsp7.uuid);
  ASSERT_EQ(slices.size(), 2u);
  const std::uint64_t types[] = {kSliceBegin, kSliceEnd};
  const std::uint64_t times[] = {1000, 3500000};
  const std::optional<std::string> names[] = {"conv2d", {}};
  for (std::size_t i = 0; i < 2; ++i) {
    auto event = slices[i].message(kTrackEvent);
    EXPECT_EQ(event->varint(kType), types[i]);
    EXPECT_EQ(event->text(kEventName), names[i]);
    EXPECT_EQ(slices[i].varint(kTimestamp), times[i]);
    EXPECT_EQ(slices[i].varint(kClockId), kMonotonic);
    auto read = event->messages(kAnnotations);
    ASSERT_EQ(read.size(), 3u);
    for (std::size_t a = 0; a < 3; ++a) {
      EXPECT_EQ(read[a].text(kAnnotationName), annotations[a].name);
      EXPECT_EQ(read[a].int64(kAnnotationInt), annotations[a].value);
    }
  }
  std::vector<std::string> read_names;
  for (const Message& packet : events_on(packets, unnamed.uuid)) {
    read_names.push_back(packet.message(kTrackEvent)->text(kEventName).value_or(""));
  }
  EXPECT_EQ(read_names, long_names);
}

}  // namespace
