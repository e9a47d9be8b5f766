#include <signal.h>
#include <sys/resource.h>

#include <filesystem>

#include "trace_fixture.h"

namespace {

using emberline::trace::category_enabled;
using emberline::trace::start_session;
using emberline::trace::stop_session;
using perfetto::CounterTrack;
using perfetto::TrackEvent;
using perfetto::internal::TrackEventInternal;
using trace_test::TraceTest;

// As a plugin emits: the category is tested first.
void emit_watts(double value) {
  static const CounterTrack track("Watts");
  if (category_enabled()) TrackEvent::Counter(track, TrackEventInternal::GetTraceTime(), value);
}

std::size_t watts_events(const std::string& path) {
  auto packets = trace_test::read_trace(path);
  EXPECT_EQ(trace_test::check_trace(packets).size(), 2u);  // the process and "Watts"
  return trace_test::events_on(packets, CounterTrack("Watts").uuid).size();
}

using TraceSessionTest = TraceTest;

TEST_F(TraceSessionTest, StartReportsOnStderrUnlessQuiet) {
  const std::string good = path();
  const std::string missing = path("no-such-dir/run.perfetto-trace");
  struct Case {
    std::string path;
    bool quiet;
    bool started;
    std::string message;
  };
  const Case cases[] = {
      {good, false, true, "Trace will be saved to '" + good + "'\n"},
      {good, true, true, ""},
      {missing, false, false, "Failed to open trace file at '" + missing + "'\n"},
      {missing, true, false, ""},
      {"/dev/full", false, false, "Failed to open trace file at '/dev/full'\n"},  // takes no bytes
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path + (c.quiet ? " quiet" : ""));
    testing::internal::CaptureStderr();
    EXPECT_EQ(start_session(c.path, c.quiet), c.started);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
    EXPECT_EQ(category_enabled(), c.started);
    stop_session();
    EXPECT_FALSE(category_enabled());
  }
}

// Each session is a trace of its own, describing again the tracks it uses; between sessions
// nothing is written, even by a caller that skips the category test.
TEST_F(TraceSessionTest, SessionsAreWholeTracesAndNothingIsWrittenBetween) {
  stop_session();  // never started: harmless
  ASSERT_TRUE(start_session(path("a"), true));
  emit_watts(1.0);
  emit_watts(2.0);
  stop_session();
  stop_session();
  auto size = std::filesystem::file_size(path("a"));
  emit_watts(3.0);
  TrackEvent::Counter(CounterTrack("Watts"), 0, 4.0);
  EXPECT_EQ(std::filesystem::file_size(path("a")), size);

  ASSERT_TRUE(start_session(path("b"), true));
  emit_watts(5.0);
  stop_session();
  EXPECT_EQ(watts_events(path("a")), 2u);
  EXPECT_EQ(watts_events(path("b")), 1u);
}

// A file that stops growing (here at the file size limit) keeps whole packets only, and
// recording ends rather than write torn ones.
TEST_F(TraceSessionTest, FailedWriteLeavesWholePacketsAndEndsRecording) {
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto* previous = signal(SIGXFSZ, SIG_IGN);
  rlimit small = saved;
  small.rlim_cur = 1000;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  bool started = start_session(path(), true);
  for (int i = 0; i < 200; ++i) emit_watts(i);
  bool still_enabled = category_enabled();
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, previous);

  ASSERT_TRUE(started);
  EXPECT_FALSE(still_enabled);
  std::size_t events = watts_events(path());
  EXPECT_GT(events, 0u);
  EXPECT_LT(events, 200u);
}

}  // namespace
