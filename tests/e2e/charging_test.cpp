// What the tool writes to the charging nodes, as the simulated headset recorded it, and what it
// says, on every way a run can end.

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include "harness.h"

namespace {

std::size_t writes_so_far() {
  return e2e::recorded_writes(0).size();
}

// A run that never reaches the loop writes nothing at all. A stop signal or a reader that went
// away (`emberline | head -1`) ends the run cleanly; after a hangup the last words go to the log.
// A fatal signal's handler runs no destructor, and SIGKILL runs no handler at all: the guard
// process the run left behind gives charging back. (The time limit's end is the stats runs', and
// the handler of each fatal signal gives back on its own in the exit guard's unit test.)
TEST(Charging, GivenBackOnEveryWayOut) {
  std::remove("/sys/class/power_supply/battery/voltage_now");
  auto failed = e2e::run({"-t", "1"});
  EXPECT_EQ(failed.exit_code, 1);
  EXPECT_EQ(failed.out, "");
  EXPECT_EQ(failed.err,
            "Failed to open file at '/sys/class/power_supply/battery/voltage_now'\n"
            "ERROR: Failed to initialize plugin 'power'\n");
  ASSERT_EQ(writes_so_far(), 0u);

  const std::string started = "Disabling charging...\nStarting trace. \nPress CTRL-C to stop...\n";
  const std::string stopped = R"(\n\nEnabling charging\.\.\.\n)", silent = "[^E]*";
  struct Case {
    int signal;
    std::size_t head;
    int killed_by;
    std::string rest;  // what follows `started` on the console (the standard error stream)
    std::vector<std::string> logged = {};  // the Android log's records, as e2e::log_records
  };
  const Case cases[] = {
      {SIGINT, 0, 0, stopped},
      {SIGTERM, 0, 0, stopped},
      {0, 1, 0, stopped},
      // The message and its line end are two insertions, so two records.
      {SIGHUP, 0, 0, R"(\n\n)", {"emberline I Enabling charging...", "emberline I \n"}},
      {SIGABRT, 0, SIGABRT, silent},
      {SIGKILL, 0, SIGKILL, silent},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.head ? "head -1" : strsignal(c.signal));
    const std::size_t before = writes_so_far();
    e2e::Options options;
    options.signal_after_start = c.signal;
    options.close_out_after_lines = c.head;
    auto result = e2e::run({"--no-power", "--example", "--inline"}, options);
    EXPECT_EQ(result.signal, c.killed_by);
    EXPECT_EQ(result.exit_code, c.killed_by ? -1 : 0);
    const auto [console, logged] = e2e::log_records(result.err, result.pid);
    EXPECT_TRUE(console.starts_with(started)) << result.err;
    EXPECT_TRUE(std::regex_match(console.substr(std::min(started.size(), console.size())),
                                 std::regex(c.rest)))
        << result.err;
    EXPECT_EQ(logged, c.logged);
    EXPECT_EQ(e2e::recorded_writes(8, before), e2e::charging_suspended_then_resumed());
  }
}

}  // namespace
