#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <numeric>
#include <thread>
#include <tuple>

#include "platform/trace/proto_writer.h"
#include "trace_fixture.h"

namespace {

using namespace emberline::trace;
using namespace perfetto;
using namespace trace_test;

constexpr auto now = &internal::TrackEventInternal::GetTraceTime;

// Counters as the plugins write them and slices as the DSP worker does, with values at the edges
// of their wire types and interned names whose lengths take one, two and three bytes. The plugins'
// own way to a counter widens a float exactly, keeps an unsigned integer as itself (never wrapped
// negative), and writes nothing while no session records.
TEST_F(TraceTest, EachEventLandsInItsFields) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::uint32_t kBoottime = protos::pbzero::BUILTIN_CLOCK_BOOTTIME;
  const std::string watts = "Watts";  // another plugin's copy of the name: the same track
  const Track dsp7(7, ProcessTrack::Current()), dsp9(9, ProcessTrack::Current());
  // The second annotation's interned name is a message of 128 bytes, the first whose length
  // takes two.
  const std::string long_name(124, 'a');
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
  Interning interning;
  std::vector<EventNames> read_names;
  std::erase_if(packets, [&](const Message& packet) {
    read_names.push_back(interning.read(packet));
    if (packet.message(kTrackEvent)) return false;
    read_names.pop_back();
    return true;
  });
  ASSERT_EQ(packets.size(), std::size(events));
  for (std::size_t i = 0; i < packets.size(); ++i) {
    auto event = packets[i].message(kTrackEvent);
    const Event& e = events[i];
    EXPECT_EQ(event->varint(kType), e.type) << i;
    EXPECT_EQ(event->varint(kTrackUuid), e.counter ? CounterTrack(e.counter).uuid : dsp7.uuid);
    EXPECT_EQ(read_names[i].name, e.name) << i;
    EXPECT_EQ(event->fixed_double(kDoubleValue), e.real) << i;
    EXPECT_EQ(event->int64(kIntValue), e.integer) << i;
    auto read = event->messages(kAnnotations);
    ASSERT_EQ(read.size(), e.counter ? 0u : 2u) << i;
    for (std::size_t a = 0; a < read.size(); ++a) {
      EXPECT_EQ(read_names[i].annotations[a], args[a].name) << i;
      EXPECT_EQ(read[a].int64(kAnnotationInt), args[a].value) << i;
    }
    // Counters are stamped in trace time, in order; slices keep the caller's time and clock.
    const std::uint64_t time = packets[i].varint(kTimestamp).value_or(0);
    EXPECT_EQ(packets[i].varint(kClockId), e.counter ? 3u : kBoottime) << i;
    EXPECT_TRUE(e.counter ? last <= time && time <= after : time == 1000 * i) << i;
    last = e.counter ? time : last;
  }
}

// A name goes into the trace once per thread's sequence and session, with the first packet that
// uses it, and the first such packet clears its sequence's state.
TEST_F(TraceTest, NamesGoOutOncePerSequenceAndSession) {
  const Track dsp(7, ProcessTrack::Current());
  const DebugAnnotation args[] = {{"dsp_cycle", 1}, {"dsp_udma", 2}};
  auto slices = [&](const char* name, int count) {
    for (std::uint64_t i = 0; i < static_cast<std::uint64_t>(count); ++i) {
      TrackEvent::SliceBegin(dsp, {3, 10 * i}, name, args, 2);
      TrackEvent::SliceEnd(dsp, {3, 10 * i + 5}, args, 1);
    }
  };
  using Lines = std::vector<std::string>;
  const Lines main_thread = {"3 conv dsp_cycle dsp_udma", "2", "2", "2", "2 pool", "2"};
  const Lines other_thread = {"3 conv dsp_cycle dsp_udma", "2", "2 pool", "2"};
  for (const char* file : {"a", "b"}) {
    ASSERT_TRUE(start_session(path(file), true));
    slices("conv", 2);
    std::thread([&] {
      slices("conv", 1);
      slices("pool", 1);
    }).join();
    slices("pool", 1);
    stop_session();

    const auto packets = read_trace(path(file));
    check_trace(packets);
    // Each event packet's flags and the texts that came with it, by sequence in order of use.
    std::vector<std::pair<std::uint64_t, Lines>> sequences;
    for (const Message& packet : packets) {
      if (!packet.message(kTrackEvent)) continue;
      std::string line = std::to_string(packet.varint(kSequenceFlags).value_or(0));
      for (const Message& interned : packet.messages(kInternedData)) {
        for (int kind : {kEventNames, kAnnotationNames}) {
          for (const Message& entry : interned.messages(kind)) line += " " + *entry.text(2);
        }
      }
      const std::uint64_t sequence = *packet.varint(kSequenceId);
      if (sequences.empty() || sequences.back().first != sequence)
        sequences.push_back({sequence, {}});
      sequences.back().second.push_back(line);
    }
    ASSERT_EQ(sequences.size(), 3u) << file;
    EXPECT_EQ(sequences[0].first, sequences[2].first);
    EXPECT_EQ(sequences[0].second, Lines(main_thread.begin(), main_thread.begin() + 4));
    EXPECT_EQ(sequences[1].second, other_thread);
    EXPECT_EQ(sequences[2].second, Lines(main_thread.begin() + 4, main_thread.end()));
  }

  // Enough names for the table of addresses to grow: each goes out once and reads back as itself.
  static const auto names = [] {
    std::vector<std::string> made;
    for (int i = 0; i < 300; ++i) made.push_back("task " + std::to_string(i));
    return made;
  }();
  ASSERT_TRUE(start_session(path("c"), true));
  for (int round = 0; round < 2; ++round) {
    for (const std::string& name : names) TrackEvent::SliceBegin(dsp, {3, 0}, name.c_str());
  }
  stop_session();
  Interning interning;
  Lines read, texts;
  for (const Message& packet : read_trace(path("c"))) {
    if (auto name = interning.read(packet).name) read.push_back(*name);
    for (const Message& interned : packet.messages(kInternedData)) {
      for (const Message& entry : interned.messages(kEventNames)) texts.push_back(*entry.text(2));
    }
  }
  EXPECT_EQ(texts, names);
  EXPECT_EQ(read.size(), 2 * names.size());
  EXPECT_TRUE(std::equal(names.begin(), names.end(), read.begin() + names.size()));
}

// Varints of every width, at both ends of it, each ending where the next field starts.
TEST(ProtoWriter, VarintsOfEveryWidthReadBack) {
  for (int bits = 0; bits <= 64; ++bits) {
    const std::uint64_t low = bits == 0 ? 0 : std::uint64_t{1} << (bits - 1);
    const std::uint64_t high = bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1;
    for (const std::uint64_t value : {low, high}) {
      char bytes[4 * internal::ProtoWriter::kMaxField] = {};
      internal::ProtoWriter w(bytes);
      w.add_varint<1>(value);
      w.add_varint<2>(bits);
      const Message read(std::string(bytes, w.size()));
      EXPECT_EQ(read.varint(1), value) << bits;
      EXPECT_EQ(read.varint(2), static_cast<std::uint64_t>(bits));
      EXPECT_EQ(w.size(), 1 + static_cast<std::size_t>(std::max(1, (bits + 6) / 7)) + 2) << bits;
    }
  }
}

// Each session is a trace of its own, which describes again the tracks it uses. Full batches go
// out through the writer thread, in order. A file that stops growing (here at the file size
// limit, met by the writer thread or by a flush) keeps whole packets only, and recording ends
// rather than write torn ones.
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
      {good, true, 300000, true, ""},
      {missing, false, none, false, "Failed to open trace file at '" + missing + "'\n"},
      {missing, true, none, false, ""},
      {"/dev/full", false, none, false, "Failed to open trace file at '/dev/full'\n"}};
  for (const auto& [file, quiet, limit, started, message] : cases) {
    const rlimit limited{limit, saved.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limited);
    testing::internal::CaptureStderr();
    EXPECT_EQ(start_session(file, quiet), started) << file << quiet << limit;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
    constexpr std::int64_t kCounters = 20000;  // about seven batches
    for (std::int64_t i = 0; i < kCounters; ++i) {
      TrackEvent::Counter(CounterTrack("Watts"), now(), i);
    }
    flush();
    EXPECT_EQ(category_enabled(), started && limit == none) << file << quiet << limit;
    stop_session();
    setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_FALSE(category_enabled());
    if (!started) continue;
    const auto packets = read_trace(file);
    EXPECT_EQ(check_trace(packets).size(), 2u) << quiet << limit;
    // Every counter in order, or those that fit whole (a counter packet is under 64 bytes).
    std::vector<std::int64_t> values, expected;
    for (const Message& packet : packets) {
      if (auto event = packet.message(kTrackEvent)) values.push_back(*event->int64(kIntValue));
    }
    for (std::int64_t i = 0; i < static_cast<std::int64_t>(values.size()); ++i) {
      expected.push_back(i);
    }
    EXPECT_EQ(values, expected);
    const auto size = std::filesystem::file_size(file);
    EXPECT_TRUE(limit == none ? values.size() == kCounters : size > limit - 64 && size <= limit)
        << quiet << limit << " " << values.size() << " " << size;
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

// A fatal signal's handler writes the batch that the writer thread has not written yet, then the
// one gathering, each in its place, and the guard's cut keeps both. The writer thread is held in a
// signal handler of its own meanwhile, in a child process, so that its batch stays unwritten.
TEST_F(TraceTest, AFatalSignalsHandlerAlsoWritesTheWriterThreadsBatch) {
  constexpr std::int64_t kCounters = 6000;  // one batch handed over, and more gathered
#if defined(__SANITIZE_THREAD__)
  const auto tasks = std::filesystem::directory_iterator("/proc/self/task");
  if (std::distance(begin(tasks), end(tasks)) > 1) {
    GTEST_SKIP() << "ThreadSanitizer starts no thread in a child forked from several threads";
  }
#endif
  static int hold[2];
  static std::atomic<bool> held{false};
  ASSERT_EQ(::pipe(hold), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (!start_session(path(), true)) ::_exit(1);
    signal(SIGUSR1, [](int) {
      held = true;
      char byte;
      [[maybe_unused]] ssize_t ignored = ::read(hold[0], &byte, 1);
    });
    ::alarm(30);
    // The writer thread names itself once it runs.
    while (!held) {
      for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name != "TraceWriter") continue;
        ::syscall(SYS_tgkill, ::getpid(), std::stoi(task.path().filename()), SIGUSR1);
        while (!held) std::this_thread::yield();
      }
    }
    for (std::int64_t i = 0; i < kCounters; ++i) {
      TrackEvent::Counter(CounterTrack("Watts"), now(), i);
    }
    flush_from_signal_handler();
    cut_to_flushed_packets(session_file());
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  ::close(hold[0]);
  ::close(hold[1]);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  const auto packets = read_trace(path());
  check_trace(packets);
  std::vector<std::int64_t> values, expected(kCounters);
  for (const Message& packet : packets) {
    if (auto event = packet.message(kTrackEvent)) values.push_back(*event->int64(kIntValue));
  }
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(values, expected);
}

}  // namespace
