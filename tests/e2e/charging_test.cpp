// What the tool writes to the charging nodes, as the simulated headset recorded it, on every way
// a run can end.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "crash_restore.h"
#include "emberline.h"
#include "harness.h"

namespace {

const char* const kNodes[] = {
    "/sys/class/qcom-battery/input_suspend",
    "/sys/class/power_supply/battery/input_suspend",
    "/sys/class/power_supply/usb/input_suspend",
    "/sys/class/power_supply/wireless/input_suspend",
};

std::size_t writes_so_far() {
  return e2e::recorded_writes(0).size();
}

// Every node suspended, then every node given back, once each.
std::vector<std::string> suspended_then_resumed() {
  std::vector<std::string> expected;
  for (const char* byte : {"31", "30"}) {
    for (const char* node : kNodes) expected.push_back(std::string(node) + " 0 " + byte);
  }
  return expected;
}

TEST(Charging, SuspendedForTheRunAndResumedAfterIt) {
  // Runs that never reach the loop, or keep charging, must write nothing at all.
  e2e::run({"--no-power", "-c", "-t", "1"});
  e2e::run({"--no-power", "--schema"});
  e2e::run({"-s", "2000"});
  std::remove("/sys/class/power_supply/battery/voltage_now");
  EXPECT_EQ(e2e::run({"-t", "1"}).exit_code, 1);
  ASSERT_EQ(writes_so_far(), 0u);

  auto result = e2e::run({"--no-power", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(e2e::recorded_writes(8), suspended_then_resumed());
}

TEST(Charging, ABrokenPipeEndsTheRunLikeSigterm) {
  const std::size_t before = writes_so_far();
  e2e::Options head;
  head.close_out_after_lines = 1;  // as `emberline | head -1`
  auto result = e2e::run({"--no-power", "--example", "--inline"}, head);
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err,
            "Disabling charging...\nStarting trace. \nPress CTRL-C to stop...\n\n\n"
            "Enabling charging...\n");
  EXPECT_EQ(e2e::recorded_writes(8, before), suspended_then_resumed());
}

// SIGKILL runs no handler: the guard process the run left behind gives charging back.
TEST(Charging, FatalSignalsGiveChargingBackAndStillEndTheProcess) {
  for (int signal : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGKILL}) {
    SCOPED_TRACE(strsignal(signal));
    const std::size_t before = writes_so_far();
    e2e::Options options;
    options.signal_after_start = signal;
    options.without_core_dump = true;
    auto result = e2e::run({"--no-power", "--example"}, options);
    EXPECT_EQ(result.signal, signal);
    EXPECT_EQ(result.err.find("Enabling charging..."), std::string::npos);
    EXPECT_EQ(e2e::recorded_writes(8, before), suspended_then_resumed());
  }
}

// A plugin that fails mid-run ends the run with 1; the engine still gives charging back.
TEST(Charging, GivenBackWhenAPluginFailsMidRun) {
  class FailsOnSecondReport : public emberline::Plugin {
    bool on_output() override { return ++outputs < 2; }
    int outputs = 0;
  };
  // Moves on at once, except that the charger's settle lasts until the sim has logged the
  // suspending writes, so that it can tell them from the resuming ones.
  class Instant : public emberline::LoopClock {
   public:
    explicit Instant(std::size_t before) : before(before) {}
    std::int64_t now_us() override { return now; }
    void sleep_for(std::chrono::nanoseconds d) override {
      if (d >= std::chrono::seconds(1)) e2e::recorded_writes(4, before);
      now += d.count() / 1000;
    }
    std::size_t before;
    std::int64_t now = 1'700'000'000'000'000;
  };
  const std::size_t before = writes_so_far();
  {
    emberline::Emberline engine(false);
    engine.set_quiet(true);
    engine.set_clock(std::make_shared<Instant>(before));
    engine.manager().add_plugin(
        "failing", std::make_shared<FailsOnSecondReport>(),
        emberline::PluginManager::PluginFieldOptions(std::nullopt, std::nullopt, false));
    ASSERT_TRUE(engine.init(false));
    testing::internal::CaptureStderr();
    EXPECT_EQ(engine.run(0, 500, 1000), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: Output update failed for plugin 'failing'\n");
  }
  emberline::crash_restore::dismiss_exit_guard();
  EXPECT_EQ(e2e::recorded_writes(8, before), suspended_then_resumed());
}

TEST(Charging, NodeThatRefusesWritingIsNamedOnceAndSkipped) {
  for (const char* node : kNodes) chmod(node, 0666);
  chmod(kNodes[2], 0444);
  const std::size_t before = writes_so_far();
  e2e::Options restricted;
  restricted.without_dac_override = true;
  auto result = e2e::run({"--no-power", "-t", "1"}, restricted);
  if (result.exit_code == 126) GTEST_SKIP() << "cannot drop the right to override permissions";
  ASSERT_EQ(result.exit_code, 0);
  EXPECT_EQ(e2e::lines(result.err)[0], "Permission denied for " + std::string(kNodes[2]));
  EXPECT_EQ(result.err.find("Permission denied", 1), std::string::npos);
  auto writes = e2e::recorded_writes(6, before);
  EXPECT_EQ(writes.size(), 6u);
  for (const auto& write : writes) EXPECT_EQ(write.find(kNodes[2]), std::string::npos);
}

}  // namespace
