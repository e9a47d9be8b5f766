#include <signal.h>
#include <sys/resource.h>

#include <limits>
#include <tuple>

#include "trace_fixture.h"

namespace {

using namespace emberline::trace;
using namespace perfetto;
using namespace trace_test;

constexpr auto now = &internal::TrackEventInternal::GetTraceTime;

// Counters as the plugins write them and slices as the DSP worker does, with values at the edges
// of their wire types and names whose lengths take one, two and three bytes.
TEST_F(TraceTest, EachEventLandsInItsFields) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::uint32_t kBoottime = protos::pbzero::BUILTIN_CLOCK_BOOTTIME;
  const std::string watts = "Watts";  // another plugin's copy of the name: the same track
  const Track dsp7(7, ProcessTrack::Current()), dsp9(9, ProcessTrack::Current());
  // The second annotation is a nested message of 128 bytes, the first whose length takes two.
  const std::string long_name(116, 'a');
  const DebugAnnotation args[] = {{"dsp_cycle", -5}, {long_name.c_str(), kMax}};
  const struct Event {
    const char* counter;  // else a slice on dsp7, with both annotations
    EventType type;
    std::optional<double> real = {};
    std::optional<std::int64_t> integer = {};
    std::optional<std::string> name = {};
  } events[] = {{"Watts", kCounter, 1.25},
                {watts.c_str(), kCounter, -1e300},
                {"CPU BW", kCounter, {}, -kMax - 1},
                {"CPU BW", kCounter, {}, kMax},
                {nullptr, kSliceBegin, {}, {}, "conv2d"},
                {nullptr, kSliceEnd},
                {nullptr, kSliceBegin, {}, {}, std::string(200, 'n')},
                {nullptr, kSliceBegin, {}, {}, std::string(20000, 'n')}};
  auto named7 = dsp7.Serialize(), named9 = dsp9.Serialize();
  named7.set_name("DSP 7");
  named9.set_name("DSP 9");

  TrackEvent::SetTrackDescriptor(dsp7, named7);  // kept for the track's first use
  ASSERT_TRUE(start_session(path(), true));
  TrackEvent::SetTrackDescriptor(dsp9, named9);  // written at once
  TrackEvent::SetTrackDescriptor(dsp9, named9);  // unchanged: not again
  std::uint64_t last = now();
  for (std::size_t i = 0; i < std::size(events); ++i) {
    const Event& e = events[i];
    const TraceTimestamp at{kBoottime, 1000 * i};
    if (e.real) TrackEvent::Counter(CounterTrack(e.counter), now(), *e.real);
    if (e.integer) TrackEvent::Counter(CounterTrack(e.counter), now(), *e.integer);
    if (e.type == kSliceBegin) TrackEvent::SliceBegin(dsp7, at, e.name->c_str(), args, 2);
    if (e.type == kSliceEnd) TrackEvent::SliceEnd(dsp7, at, args, 2);
  }
  const std::uint64_t after = now();
  stop_session();

  auto packets = read_trace(path());
  auto tracks = check_trace(packets);
  EXPECT_EQ(tracks.at(0).message(kProcess)->int64(1), getpid());
  std::vector<std::string> names;  // in order of first use, counters marked
  for (const Message& track : tracks)
    names.push_back(track.text(kName).value_or("") + (track.message(kCounterInfo) ? "#" : ""));
  EXPECT_EQ(names, (std::vector<std::string>{"", "DSP 9", "Watts#", "CPU BW#", "DSP 7"}));
  std::erase_if(packets, [](const Message& packet) { return !packet.message(kTrackEvent); });
  ASSERT_EQ(packets.size(), std::size(events));
  for (std::size_t i = 0; i < packets.size(); ++i) {
    auto event = packets[i].message(kTrackEvent);
    const Event& e = events[i];
    EXPECT_EQ(event->varint(kType), e.type) << i;
    EXPECT_EQ(event->varint(kTrackUuid), e.counter ? CounterTrack(e.counter).uuid : dsp7.uuid);
    EXPECT_EQ(event->text(kEventName), e.name) << i;
    EXPECT_EQ(event->fixed_double(kDoubleValue), e.real) << i;
    EXPECT_EQ(event->int64(kIntValue), e.integer) << i;
    auto read = event->messages(kAnnotations);
    ASSERT_EQ(read.size(), e.counter ? 0u : 2u) << i;
    for (std::size_t a = 0; a < read.size(); ++a) {
      EXPECT_EQ(read[a].text(kAnnotationName), args[a].name) << i;
      EXPECT_EQ(read[a].int64(kAnnotationInt), args[a].value) << i;
    }
    // Counters are stamped in trace time, in order; slices keep the caller's time and clock.
    const std::uint64_t time = packets[i].varint(kTimestamp).value_or(0);
    EXPECT_EQ(packets[i].varint(kClockId), e.counter ? 3u : kBoottime) << i;
    EXPECT_TRUE(e.counter ? last <= time && time <= after : time == 1000 * i) << i;
    last = e.counter ? time : last;
  }
}

// Each session is a trace of its own, which describes again the tracks it uses. A file that stops
// growing (here at the file size limit) keeps whole packets only, and recording ends rather than
// write torn ones.
TEST_F(TraceTest, SessionsReportUnlessQuietAndEachRecordsAWholeTrace) {
  const std::string good = path(), missing = path("no-such-dir/run");
  rlimit saved{};
  getrlimit(RLIMIT_FSIZE, &saved);
  auto* previous = signal(SIGXFSZ, SIG_IGN);
  const rlim_t none = saved.rlim_cur;
  const std::tuple<std::string, bool, rlim_t, bool, std::string> cases[] = {
      {good, false, none, true, "Trace will be saved to '" + good + "'\n"},
      {good, true, none, true, ""},
      {good, true, 1000, true, ""},
      {missing, false, none, false, "Failed to open trace file at '" + missing + "'\n"},
      {missing, true, none, false, ""},
      {"/dev/full", false, none, false, "Failed to open trace file at '/dev/full'\n"}};
  for (const auto& [file, quiet, limit, started, message] : cases) {
    const rlimit limited{limit, saved.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limited);
    testing::internal::CaptureStderr();
    EXPECT_EQ(start_session(file, quiet), started) << file << quiet << limit;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
    for (int i = 0; i < 200; ++i) TrackEvent::Counter(CounterTrack("Watts"), now(), i);
    EXPECT_EQ(category_enabled(), started && limit == none) << file << quiet << limit;
    stop_session();
    setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_FALSE(category_enabled());
    EXPECT_TRUE(!started || check_trace(read_trace(file)).size() == 2) << quiet << limit;
  }
  signal(SIGXFSZ, previous);
}

// The one way the plugins emit a counter: a float widened exactly, an unsigned integer as itself
// (never wrapped negative), and nothing while no session records.
TEST_F(TraceTest, CountersKeepTheirValuesType) {
  const CounterTrack track("DDR frequency");
  const float fraction = 0.1f;
  const unsigned int top = 4294967295u, zero = 0;
  emit_counter(track, fraction);  // no session yet
  ASSERT_TRUE(start_session(path(), true));
  emit_counter(track, fraction);
  emit_counter(track, top);
  emit_counter(track, zero);
  stop_session();
  emit_counter(track, top);

  std::vector<std::string> values;
  for (const Message& packet : read_trace(path())) {
    if (auto event = packet.message(kTrackEvent)) {
      EXPECT_EQ(event->varint(kTrackUuid), track.uuid);
      auto integer = event->int64(kIntValue);
      values.push_back(integer ? std::to_string(*integer)
                               : std::to_string(event->fixed_double(kDoubleValue).value_or(-1) ==
                                                static_cast<double>(fraction)));
    }
  }
  EXPECT_EQ(values, (std::vector<std::string>{"1", "4294967295", "0"}));
}

}  // namespace
