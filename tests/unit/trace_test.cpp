#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <tuple>

#include "trace_fixture.h"

namespace {

using namespace emberline::trace;
using namespace perfetto;
using namespace trace_test;

constexpr auto now = &internal::TrackEventInternal::GetTraceTime;

// Counters as the plugins write them and slices as the DSP worker does, with values at the edges
// of their wire types and names whose lengths take one, two and three bytes. The plugins' own way
// to a counter widens a float exactly, keeps an unsigned integer as itself (never wrapped
// negative), and writes nothing while no session records.
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
    bool emitted = false;  // through emit_counter, a float or an unsigned int
  } events[] = {{"Watts", kCounter, 1.25},
                {watts.c_str(), kCounter, -1e300},
                {"CPU BW", kCounter, {}, -kMax - 1},
                {"CPU BW", kCounter, {}, kMax},
                {"DDR frequency", kCounter, static_cast<double>(0.1f), {}, {}, true},
                {"DDR frequency", kCounter, {}, 4294967295, {}, true},
                {"DDR frequency", kCounter, {}, 0, {}, true},
                {nullptr, kSliceBegin, {}, {}, "conv2d"},
                {nullptr, kSliceEnd},
                {nullptr, kSliceBegin, {}, {}, std::string(200, 'n')},
                // Larger than the batch: it goes out on its own, behind what was gathered.
                {nullptr, kSliceBegin, {}, {}, std::string(kBatchBytes + 1000, 'n')}};
  auto named7 = dsp7.Serialize(), named9 = dsp9.Serialize();
  named7.set_name("DSP 7");
  named9.set_name("DSP 9");

  TrackEvent::SetTrackDescriptor(dsp7, named7);       // kept for the track's first use
  emit_counter(CounterTrack("DDR frequency"), 0.5f);  // no session yet
  ASSERT_TRUE(start_session(path(), true));
  TrackEvent::SetTrackDescriptor(dsp9, named9);  // written at once
  TrackEvent::SetTrackDescriptor(dsp9, named9);  // unchanged: not again
  std::uint64_t last = now();
  for (std::size_t i = 0; i < std::size(events); ++i) {
    const Event& e = events[i];
    const TraceTimestamp at{kBoottime, 1000 * i};
    if (e.emitted && e.real) emit_counter(CounterTrack(e.counter), static_cast<float>(*e.real));
    if (e.emitted && e.integer) {
      emit_counter(CounterTrack(e.counter), static_cast<unsigned int>(*e.integer));
    }
    if (!e.emitted && e.real) TrackEvent::Counter(CounterTrack(e.counter), now(), *e.real);
    if (!e.emitted && e.integer) TrackEvent::Counter(CounterTrack(e.counter), now(), *e.integer);
    if (e.type == kSliceBegin) TrackEvent::SliceBegin(dsp7, at, e.name->c_str(), args, 2);
    if (e.type == kSliceEnd) TrackEvent::SliceEnd(dsp7, at, args, 2);
  }
  const std::uint64_t after = now();
  stop_session();
  emit_counter(CounterTrack("DDR frequency"), 7u);

  auto packets = read_trace(path());
  auto tracks = check_trace(packets);
  EXPECT_EQ(tracks.at(0).message(kProcess)->int64(1), getpid());
  std::vector<std::string> names;  // in order of first use, counters marked
  for (const Message& track : tracks)
    names.push_back(track.text(kName).value_or("") + (track.message(kCounterInfo) ? "#" : ""));
  EXPECT_EQ(names, (std::vector<std::string>{"", "DSP 9", "Watts#", "CPU BW#", "DDR frequency#",
                                             "DSP 7"}));
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
    flush();  // the batch meets the limit here
    EXPECT_EQ(category_enabled(), started && limit == none) << file << quiet << limit;
    stop_session();
    setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_FALSE(category_enabled());
    if (!started) continue;
    const auto packets = read_trace(file);
    EXPECT_EQ(check_trace(packets).size(), 2u) << quiet << limit;
    // All 200 counters, or every one that fit whole (a counter packet is under 64 bytes).
    EXPECT_TRUE(limit == none ? packets.size() == 203
                              : std::filesystem::file_size(file) > limit - 64)
        << quiet << limit;
  }
  signal(SIGXFSZ, previous);
}

// Stands in for the exit guard: a child forked now, holding the descriptors of this moment, that
// cuts the session's file back once told that this process has ended.
class Guard {
 public:
  Guard() : file_(session_file()) {
    if (::pipe(told_) != 0) throw std::runtime_error("pipe");
    child_ = ::fork();
    if (child_ == 0) {
      char byte;
      [[maybe_unused]] ssize_t ignored = ::read(told_[0], &byte, 1);
      cut_to_flushed_packets(file_);
      ::_exit(0);
    }
    ::close(told_[0]);
  }
  // Told by a byte: later guards hold this pipe's write end too, so its end of file would wait.
  void this_process_ended() {
    [[maybe_unused]] ssize_t ignored = ::write(told_[1], "x", 1);
    ::close(told_[1]);
    ::waitpid(child_, nullptr, 0);
  }

 private:
  const SessionFile file_;
  int told_[2];
  pid_t child_;
};

// A SIGKILL may cut the last write short inside a packet; the guard then cuts the file back to the
// packets written whole. A file whose session has ended, or was replaced, is left as it is, even
// where the new session's file has the old one's descriptor number.
TEST_F(TraceTest, TheGuardCutsATornWriteAway) {
  auto tear = [](const std::string& file) {
    std::ofstream(file, std::ios::app) << "\x0a\x64torn";  // a packet of 100 bytes, cut at 4
    return std::filesystem::file_size(file);
  };
  ASSERT_TRUE(start_session(path("a"), true));
  TrackEvent::Counter(CounterTrack("Watts"), now(), 1.0);
  flush();
  const auto whole = std::filesystem::file_size(path("a"));
  Guard first;
  tear(path("a"));
  TrackEvent::Counter(CounterTrack("Watts"), now(), 2.0);  // gathered only: lost to a SIGKILL
  first.this_process_ended();
  EXPECT_EQ(std::filesystem::file_size(path("a")), whole);
  EXPECT_EQ(check_trace(read_trace(path("a"))).size(), 2u);

  Guard replaced;
  ASSERT_TRUE(start_session(path("b"), true));
  Guard ended;
  const auto torn_a = tear(path("a"));
  replaced.this_process_ended();
  EXPECT_EQ(std::filesystem::file_size(path("a")), torn_a);
  stop_session();
  const auto torn_b = tear(path("b"));
  ended.this_process_ended();
  EXPECT_EQ(std::filesystem::file_size(path("b")), torn_b);
}

}  // namespace
