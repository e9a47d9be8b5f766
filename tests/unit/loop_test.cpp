#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <optional>
#include <regex>
#include <utility>
#include <vector>

#include "emberline.h"
#include "platform/trace/perfetto.h"
#include "trace_fixture.h"

namespace emberline {
namespace {

// Time stands still except where a sleep or a plugin's simulated work moves it.
class FakeClock : public LoopClock {
 public:
  explicit FakeClock(std::int64_t start_us) : now(start_us) {}
  std::int64_t now_us() override { return now; }
  void sleep_for(std::chrono::nanoseconds duration) override {
    sleeps.push_back(duration.count() / 1000000);
    now += duration.count() / 1000;
    if (jump_to) now = *std::exchange(jump_to, std::nullopt);
    if (on_sleep) on_sleep();
  }
  std::function<void()> on_sleep;
  std::int64_t now;
  std::optional<std::int64_t> jump_to;  // where the wall clock lands after the next sleep
  std::vector<std::int64_t> sleeps;     // milliseconds
};

constexpr std::int64_t kStartUs = 1'700'000'000'000'000;

// Records the loop-relative millisecond of every call, and can spend time or fail.
class ProbePlugin : public Plugin {
 public:
  explicit ProbePlugin(FakeClock& clock) : clock(clock) {}
  bool on_sample() override {
    samples.push_back(relative_ms());
    if (on_sample_hook) on_sample_hook(samples.size());
    return sample_result;
  }
  bool on_output() override {
    outputs.push_back(relative_ms());
    if (on_output_hook) on_output_hook(outputs.size());
    return output_result;
  }
  bool on_emit_to_perfetto() override { return emit_result; }
  std::int64_t relative_ms() const { return (clock.now - kStartUs) / 1000; }

  FakeClock& clock;
  std::vector<std::int64_t> samples, outputs;
  std::function<void(std::size_t)> on_sample_hook, on_output_hook;
  bool sample_result = true;
  bool output_result = true;
  bool emit_result = true;
};

struct Harness {
  explicit Harness(bool perfetto = false) : engine(perfetto) {
    clock = std::make_shared<FakeClock>(kStartUs);
    probe = std::make_shared<ProbePlugin>(*clock);
    engine.set_clock(clock);
    engine.set_continue_charging(true);
    engine.set_quiet(true);
    engine.add_timestamp_fields();
    engine.add_timing_fields();
    engine.manager().add_plugin(
        "probe", probe, PluginManager::PluginFieldOptions(std::nullopt, std::nullopt, false));
    EXPECT_TRUE(engine.init(false));
    stop_flag = false;
  }
  Emberline engine;
  std::shared_ptr<FakeClock> clock;
  std::shared_ptr<ProbePlugin> probe;
};

using Ms = std::vector<std::int64_t>;
const std::string kCsvHeader =
    "sequence,timestamp,device_timestamp,sample_time_ms,output_time_ms,process_time_ms,"
    "drift_time_ms,wait_time_ms,\n";

TEST(TimingLoop, TicksFallOnPlanWhateverTheWorkCosts) {
  struct Case {
    unsigned time, sample, output;
    std::int64_t sample_cost_ms, output_cost_ms;
    std::size_t slow_sample;  // this sample costs 1200 ms instead
    Ms samples, outputs, sleeps;
  } cases[] = {
      // clang-format off
      // The first sample is immediate, the first report a whole output period later; the limit
      // is tested after the output step, so the cycle past it still samples, and never sleeps.
      {2, 500, 1000, 0, 0, 0, {0, 500, 1000, 1500, 2000, 2500}, {1000, 2000},
       {500, 500, 500, 500, 500}},
      {3, 300, 1000, 0, 0, 0, {0, 300, 600, 900, 1200, 1500, 1800, 2100, 2400, 2700, 3000, 3300},
       {1000, 2000, 3000}, {300, 300, 300, 100, 200, 300, 300, 200, 100, 300, 300, 300, 300}},
      {1, 1000, 1000, 0, 0, 0, {0, 1000, 2000}, {1000, 2000}, {1000, 1000}},
      // A wait of a single millisecond is still slept.
      {1, 500, 1000, 499, 0, 0, {0, 500, 1000, 1500}, {1499}, {1, 1, 1}},
      // Work inside a cycle shortens its wait, so ticks stay on plan.
      {3, 500, 1000, 7, 30, 0, {0, 500, 1000, 1500, 2000, 2500, 3000, 3500}, {1007, 2007, 3007},
       {493, 493, 463, 493, 463, 493, 463}},
      // An overrun drops no tick: late cycles run back to back until the plan is caught up.
      {3, 500, 1000, 0, 0, 2, {0, 500, 1700, 1700, 2000, 2500, 3000, 3500}, {1700, 2000, 3000},
       {500, 300, 500, 500, 500}},
      // clang-format on
  };
  for (const auto& c : cases) {
    Harness h;
    h.probe->on_sample_hook = [&](std::size_t n) {
      h.clock->now += (n == c.slow_sample ? 1200 : c.sample_cost_ms) * 1000;
    };
    h.probe->on_output_hook = [&](std::size_t) { h.clock->now += c.output_cost_ms * 1000; };
    EXPECT_EQ(h.engine.run(c.time, c.sample, c.output), 0);
    EXPECT_EQ(h.probe->samples, c.samples) << c.sample;
    EXPECT_EQ(h.probe->outputs, c.outputs) << c.sample;
    EXPECT_EQ(h.clock->sleeps, c.sleeps) << c.sample;
  }
}

// A failing step ends the run at once, with 1 and without a further report. A clock stepped
// back to before the start makes the elapsed time huge: a run with a limit ends in that cycle.
TEST(TimingLoop, EndingConditions) {
  const struct {
    bool perfetto;
    unsigned time;
    bool ProbePlugin::*fails_from_third;
    std::size_t steps_back_at;
    std::string failed;  // the step the error names
  } cases[] = {
      {false, 0, &ProbePlugin::sample_result, 0, "Sample update"},
      {false, 0, &ProbePlugin::output_result, 0, "Output update"},
      {true, 0, &ProbePlugin::emit_result, 0, "Emit to perfetto"},
      {false, 100, nullptr, 2, ""},
  };
  for (const auto& c : cases) {
    Harness h(c.perfetto);
    h.probe->on_sample_hook = [&](std::size_t n) {
      if (c.fails_from_third) (*h.probe).*c.fails_from_third = n < 3;
      if (n == c.steps_back_at) h.clock->jump_to = kStartUs - 5'000'000;
    };
    testing::internal::CaptureStderr();
    EXPECT_EQ(h.engine.run(c.time, 500, 1000), c.failed.empty() ? 0 : 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              c.failed.empty() ? "" : "ERROR: " + c.failed + " failed for plugin 'probe'\n");
    EXPECT_EQ(h.probe->samples.size(), 3u) << c.failed;
  }
  stop_flag = false;
}

// What a cycle traced is in the file before the loop waits, so that a run killed in its wait
// loses nothing, and one killed at work loses at most that cycle.
TEST(TimingLoop, EachCycleTraceIsInTheFileBeforeItsWait) {
  const std::string path =
      testing::TempDir() + "emberline-loop-" + std::to_string(getpid()) + ".perfetto-trace";
  Harness h(true);
  ASSERT_TRUE(trace::start_session(path, true));
  static const perfetto::CounterTrack track("Watts");
  h.probe->on_sample_hook = [](std::size_t n) { trace::emit_counter(track, n); };
  std::vector<std::size_t> in_file;  // counters in the file at each wait
  h.clock->on_sleep = [&] {
    in_file.push_back(std::ranges::count_if(trace_test::read_trace(path), [](const auto& packet) {
      return packet.message(trace_test::kTrackEvent).has_value();
    }));
  };
  EXPECT_EQ(h.engine.run(2, 500, 1000), 0);
  trace::stop_session();
  std::remove(path.c_str());
  EXPECT_EQ(in_file, (std::vector<std::size_t>{1, 2, 3, 4, 5}));
}

// Status goes to stderr, CSV reports to stdout, only the header in perfetto mode. A report
// carries its cycle's start and sample time, and the cycle before's process, drift and wait: an
// overrun's wait shows as the negative number it is. Every run stops after its second report, or
// before its first cycle, when the report has its header all the same.
TEST(TimingLoop, ConsoleShowsStatusThenReports) {
  const std::string rows =
      "1,1.000,1700000001.000,4,0,4,0,496,\n2,2.000,1700000002.000,4,0,4,0,496,\n";
  const std::string press = "Press CTRL-C to stop...\n\n\n";
  struct Case {
    bool perfetto, continue_charging;
    unsigned time, sample;
    std::size_t slow_sample;  // costs 1804 ms, the others 4 ms
    std::string out, err;
    Ms first_sleeps;
    bool stopped_at_once = false;
  } cases[] = {
      // clang-format off
      {false, true, 0, 500, 0, kCsvHeader, "Starting trace. \n" + press, {}, true},
      {false, true, 2, 500, 0, kCsvHeader + rows, "Starting 2 second trace. \n" + press, {496}},
      {true, true, 2, 500, 0, kCsvHeader, "Starting 2 second trace. \n" + press, {496}},
      {false, true, 3, 500, 2,
       kCsvHeader + "1,2.304,1700000002.304,4,0,1804,0,-1304,\n"
                "2,2.312,1700000002.312,4,0,4,808,-312,\n",
       "Starting 3 second trace. \n" + press, {496}},
      // The loop's time starts after the charger has settled. A report from a cycle without a
      // sample shows no sample time.
      {false, false, 0, 300, 0,
       kCsvHeader + "1,1.000,1700000002.000,0,0,4,0,96,\n2,2.000,1700000003.000,0,0,4,0,196,\n",
       "Disabling charging...\nStarting trace. \n" + press, {1000, 296}},
      // clang-format on
  };
  for (const auto& c : cases) {
    Harness h(c.perfetto);
    h.engine.set_quiet(false);
    h.engine.set_output_format(OutputFormat::CSV);
    h.engine.set_continue_charging(c.continue_charging);
    h.probe->on_sample_hook = [&](std::size_t n) {
      h.clock->now += (n == c.slow_sample ? 1804 : 4) * 1000;
    };
    h.probe->on_output_hook = [](std::size_t n) { stop_flag = n == 2; };
    stop_flag = c.stopped_at_once;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(h.engine.run(c.time, c.sample, 1000), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
    EXPECT_EQ(h.probe->outputs.size(), c.stopped_at_once ? 0u : 2u);
    EXPECT_EQ(h.probe->samples.empty(), c.stopped_at_once);
    h.clock->sleeps.resize(c.first_sleeps.size());
    EXPECT_EQ(h.clock->sleeps, c.first_sleeps);
  }
  stop_flag = false;
}

// After a hangup the console is gone: report lines and status alike become log records, and
// nothing reaches the old streams.
TEST(Console, HangupSendsReportsAndStatusToTheLog) {
  std::streambuf* out = std::cout.rdbuf();
  std::streambuf* err = std::cerr.rdbuf();
  Emberline engine(false);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  utils::redirect_console_to_log();
  engine.output_line("sequence: 7 | timestamp: 7.000");
  engine.output_message("Enabling charging...");
  std::cout.rdbuf(out);
  std::cerr.rdbuf(err);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  const std::string log = testing::internal::GetCapturedStderr();
  for (const char* text : {"sequence: 7 \\| timestamp: 7\\.000", "Enabling charging\\.\\.\\."}) {
    EXPECT_TRUE(std::regex_search(
        log, std::regex(std::string("(^|\\n)emberline I [0-9 :-]+ +\\d+ +\\d+ ") + text + "\\n")))
        << log;
  }
}

}  // namespace
}  // namespace emberline
