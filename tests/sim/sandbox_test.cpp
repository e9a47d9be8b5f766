// The sim binary end to end: what COMMAND sees, what it leaves behind, and how its end is reported.

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <thread>

#include "model.h"
#include "profile.h"
#include "sim_process.h"

namespace emberline::sim {
namespace {

using namespace sim_test;
namespace fs = std::filesystem;

// Shell helpers for scripts run inside: `await OP` waits until the battery current compares to 0
// by OP; `taken` waits until the sim has emptied the node $n.
const std::string kHelpers =
    "c=/sys/class/power_supply/battery/current_now; n=/sys/class/qcom-battery/input_suspend; "
    "await() { i=0; until [ $(cat $c) $1 0 ]; do i=$((i+1)); [ $i -gt 2000 ] && exit 9; "
    "sleep 0.01; done; }; taken() { while [ -s $n ]; do sleep 0.001; done; }; ";

class Sandbox : public testing::Test {
 protected:
  TemporaryDir state;
  Outcome run(const std::string& script, const std::string& option = "--frozen") {
    return run_sim({"run", option, "--state", state.path(), "--", "sh", "-c", kHelpers + script});
  }
};

using View = std::array<std::string, 3>;  // name, script, what it prints

class SandboxTest : public Sandbox, public testing::WithParamInterface<View> {};

TEST_P(SandboxTest, CommandSeesTheHeadset) {
  auto [name, script, expected] = GetParam();
  for (size_t at; (at = expected.find("{state}")) != std::string::npos;) {
    expected.replace(at, 7, state.path());
  }
  Outcome o = run(script);
  EXPECT_EQ(o.out, expected) << o.err;
  EXPECT_EQ(o.status, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, SandboxTest,
    testing::Values(
        View{"sys_is_only_the_headsets", "ls /sys", "class\n"},
        View{"proc_stat_is_the_profiles", "grep -c '^cpu[0-9]' /proc/stat", "8\n"},
        View{
            "proc_self_and_pids_lead_to_the_real_procfs",
            "read -r p x < /proc/$$/stat && [ $p = $$ ] && grep -q libc /proc/self/maps && echo ok",
            "ok\n"},
        View{"identity", "grep device= /system/build.prop", "ro.product.device=generic\n"},
        View{"state_dir_is_exported_and_visible",
             "echo $EMBERLINE_SIM_STATE; ls $EMBERLINE_SIM_STATE/writes.log",
             "{state}\n{state}/writes.log\n"},
        View{"checkout_and_build_tree_are_visible_read_only",
             "test -x " SIM_PROBE " && for d in /system /proc /usr /etc " SOURCE_DIR " " BINARY_DIR
             "; do touch $d/x 2>/dev/null || echo ro; done",
             "ro\nro\nro\nro\nro\nro\n"},
        View{"data_is_kept_in_the_state_dir",
             "echo hi > /data/local/tmp/f && mkfifo /data/misc/dsp/fifo && "
             "test -p $EMBERLINE_SIM_STATE/data/misc/dsp/fifo && cat "
             "$EMBERLINE_SIM_STATE/data/local/tmp/f",
             "hi\n"}),
    [](const auto& info) { return info.param[0]; });

TEST_F(Sandbox, ExitStatusIsTheCommands) {
  for (auto [script, status] : {std::pair{"true", 0}, {"exit 7", 7}, {"kill -KILL $$", 137}}) {
    EXPECT_EQ(run(script).status, status) << script;
  }
}

TEST_F(Sandbox, RecordsEveryWriteUpToOneRightBeforeExit) {
  Outcome o =
      run("printf 1 > $n; taken; printf 0 > $n; taken; "
          "printf 1 | dd of=$n bs=1 seek=3 conv=notrunc 2>/dev/null");
  ASSERT_EQ(o.status, 0) << o.err;
  std::vector<std::string> log = lines(read_file(state.path() + "/writes.log"));
  for (std::string& line : log) line.erase(0, line.find(' ') + 1);
  const std::string node = "/sys/class/qcom-battery/input_suspend";
  EXPECT_EQ(log, (std::vector{node + " 0 31", node + " 0 30", node + " 3 31"}));
}

TEST_F(Sandbox, SuspendedChargingDischargesTheBatteryAndFrozenNodesStay) {
  std::string suspend = "for s in /sys/class/*/input_suspend /sys/class/*/*/input_suspend; do ";
  Outcome live = run("await -lt; " + suspend + "printf 1 > $s; done; await -gt; " + suspend +
                         "printf 0 > $s; done; await -lt; echo ok",
                     "--profile=fennick");
  EXPECT_EQ(live.out, "ok\n") << live.err;
  std::string initial =
      micro_units(DeviceModel(find_profile("generic")->model, 1).state().battery_a);
  EXPECT_EQ(run(suspend + "printf 1 > $s; done; sleep 0.2; cat $c").out, initial);
}

TEST(SandboxIsolationTest, ARunChangesNothingOnTheHostOutsideItsStateDir) {
  TemporaryDir tmp;
  std::string token = "emberline-sim-isolation-" + std::to_string(getpid());
  std::string seconds = "99" + std::to_string(getpid());
  std::vector<std::string> places{"/",        "/tmp",    "/data/local/tmp", "/sys",  "/dev/shm",
                                  "/usr",     "/etc",    "/var/tmp",        "/root", SOURCE_DIR,
                                  BINARY_DIR, tmp.path()};
  std::string script = "for d in";
  for (const std::string& p : places) script += " " + p;
  script += "; do echo x > $d/" + token + " 2>/dev/null; done; cat /data/local/tmp/" + token +
            "; sleep " + seconds + " &";
  bool had_data = fs::exists("/data"), had_system = fs::exists("/system");

  Outcome o = run_sim({"run", "--", "sh", "-c", script}, {"TMPDIR=" + tmp.path()});

  EXPECT_EQ(o.out, "x\n") << o.err;
  for (const std::string& p : places) EXPECT_FALSE(fs::exists(p + "/" + token)) << p;
  EXPECT_EQ(fs::exists("/data"), had_data);
  EXPECT_EQ(fs::exists("/system"), had_system);
  EXPECT_TRUE(fs::is_empty(tmp.path())) << "the temporary state dir is removed";
  for (const auto& entry : fs::directory_iterator("/proc")) {
    EXPECT_NE(read_file(entry.path() / "cmdline"), "sleep" + std::string(1, '\0') + seconds + '\0')
        << "left running";
  }
}

class SignalTest : public testing::TestWithParam<std::pair<int, std::string>> {};

TEST_P(SignalTest, ReachesTheCommand) {
  TemporaryDir state;
  std::string name = GetParam().second;
  Process sim({"run", "--frozen", "--state", state.path(), "--", "sh", "-c",
               "trap 'exit 40' " + name + "; touch $EMBERLINE_SIM_STATE/ready; " +
                   "while :; do sleep 0.01; done"});
  while (!fs::exists(state.path() + "/ready")) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  sim.signal(GetParam().first);
  EXPECT_EQ(sim.wait().status, 40);
}

INSTANTIATE_TEST_SUITE_P(Signals, SignalTest,
                         testing::Values(std::pair{SIGINT, "INT"}, std::pair{SIGTERM, "TERM"},
                                         std::pair{SIGHUP, "HUP"}),
                         [](const auto& info) { return info.param.second; });

TEST(SandboxFailureTest, NoNamespaceIsAClearErrorAndNoCommandIs127) {
  TemporaryDir bin;
  std::ofstream(bin.path() + "/bwrap")
      << "#!/bin/sh\necho 'bwrap: Creating new namespace failed: Operation not permitted' >&2\n"
         "exit 1\n";
  fs::permissions(bin.path() + "/bwrap", fs::perms::owner_all);
  Outcome o = run_sim({"run", "--", "true"}, {"PATH=" + bin.path() + ":/usr/bin:/bin"});
  EXPECT_EQ(o.status, 125);
  EXPECT_NE(o.err.find("could not set up the sandbox"), std::string::npos) << o.err;
  EXPECT_EQ(run_sim({"run", "--", "no-such-command-here"}).status, 127);
}

TEST(SandboxThreaded, SanitizerRuntimesWorkInside) {
  Outcome o = run_sim({"run", "--frozen", "--", SIM_PROBE},
                      {"ASAN_OPTIONS=detect_leaks=1", "TSAN_OPTIONS=halt_on_error=0"});
  EXPECT_EQ(o.err.find("child failed"), std::string::npos) << o.err;
  EXPECT_EQ(o.err.find("fatal error"), std::string::npos) << o.err;
  const char* report = std::string_view(SIM_PROBE_SANITIZER) == "thread"
                           ? "ThreadSanitizer: data race"
                           : "LeakSanitizer: detected memory leaks";
  EXPECT_NE(o.err.find(report), std::string::npos) << o.err;
}

}  // namespace
}  // namespace emberline::sim
