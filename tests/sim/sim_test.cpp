// The simulated headset: its files, writes, log and threads in-process, the sim binary end to end.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <tuple>

#include "device_log.h"
#include "model.h"
#include "proc_tree.h"
#include "profile.h"
#include "state_dir.h"
#include "support/process.h"
#include "write_recorder.h"

namespace emberline::sim {
namespace {

namespace fs = std::filesystem;

using test_support::Outcome;
using test_support::read_file;

// What a profile's node shows at the start of a run, or "absent".
std::string shown(const Profile& profile, const std::string& path) {
  const DeviceState initial = DeviceModel(profile.model, 1).state();
  for (const Node& node : profile.nodes) {
    if (node.path == path) return node.render ? node.render(initial) : node.content;
  }
  return "absent";
}

// Each profile's identity, clusters, thermal zones, rails and DRAM monitors show in its golden
// schema. What no schema shows is the battery gauge: the full charge, the charge now, and the
// design capacity where the charge plugin has it, above the full charge of a worn battery.
TEST(Profiles, EachGenerationHasItsBatteryGauge) {
  const std::string battery = "/sys/class/power_supply/battery/";
  for (auto [profile, full, counter, design] :
       std::vector<std::array<const char*, 4>>{{"generic", "5000000\n", "3100000\n", "absent"},
                                               {"generic-3000", "5000000\n", "3100000\n", "absent"},
                                               {"brantley", "3640000\n", "2584400\n", "absent"},
                                               {"fennick", "4877840\n", "2682812\n", "5060000\n"},
                                               {"maplet", "4242240\n", "2884723\n", "4320000\n"},
                                               {"dorrin", "5230500\n", "2458335\n", "5500000\n"}}) {
    SCOPED_TRACE(profile);
    const Profile& p = *find_profile(profile);
    EXPECT_EQ(shown(p, battery + "charge_full"), full);
    EXPECT_EQ(shown(p, battery + "charge_counter"), counter);
    EXPECT_EQ(shown(p, battery + "charge_full_design"), design);
  }
}

// One node would hide the other, as the charge attributes once hid Fennick's worn gauge.
TEST(Profiles, TwoNodesAtOnePathAreAnErrorWhenTheProfileIsBuilt) {
  Profile twice = *find_profile("generic");
  twice.name = "twice";
  twice.nodes.clear();
  twice.dirs.clear();
  twice.hardware.rail_monitors = {{"/sys/bus/iio/devices/iio:device3/", {{"a", 0, 0}}},
                                  {"/sys/bus/iio/devices/iio:device3/", {{"b", 0, 0}}}};
  try {
    build_profile(twice);
    ADD_FAILURE() << "built";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(),
                 "profile twice: two nodes at /sys/bus/iio/devices/iio:device3/available_rails");
  }
  twice.hardware.rail_monitors.pop_back();
  EXPECT_EQ(shown(build_profile(twice), "/sys/bus/iio/devices/iio:device3/available_rails"),
            "0:a\n");
}

TEST(LiveNodes, RewriteInPlaceSoThatAHeldDescriptorSeesEachValueWhole) {
  const Profile& profile = *find_profile("generic");
  TemporaryDir dir;
  lay_out(profile, dir.path(), DeviceModel(profile.model, 1).state());
  // The tool holds its descriptors open; a shorter value must leave no tail of the longer one.
  int held = open((dir.path() + "/sys/class/power_supply/battery/current_now").c_str(), O_RDONLY);
  LiveNodes(profile, dir.path()).render(DeviceState{});
  char buf[32] = {};
  ASSERT_GT(pread(held, buf, sizeof buf - 1, 0), 0);
  EXPECT_STREQ(buf, "0\n");
  close(held);
}

TEST(WriteRecorderTest, LogsEachWriteWhereItBeganAndFollowsTheChargingNodes) {
  const std::string qcom = "/sys/class/qcom-battery/input_suspend", ps = "/sys/class/power_supply/",
                    period = "/sys/devices/system/cpu/bw_prof/sample_ms";
  // Each write, with whether charging is suspended after it; the time is the order. An empty
  // write is the tool's truncation on its own.
  const std::vector<std::pair<Write, bool>> steps{
      {{1, qcom, 0, "1"}, true},
      {{2, ps + "battery/input_suspend", 0, "1\n"}, true},
      {{3, qcom, 0, "0"}, true},  // the battery node still says suspend
      {{4, ps + "battery/input_suspend", 3, "0"}, false},
      {{5, ps + "usb/input_suspend", 0, "1"}, true},
      {{6, ps + "usb/input_suspend", 0, "on"}, true},  // not a number: changes nothing
      {{7, period, 0, "30"}, true},
      {{8, period, 0, ""}, true},
      {{9, period, 0, "30"}, true},  // a driver's setting written again counts again
      {{10, ps + "usb/input_suspend", 0, "0"}, false},
      {{11, ps + "wireless/input_suspend", 0, "1"}, false},  // wireless input is not the charger
  };
  const Profile& profile = *find_profile("fennick");
  TemporaryDir dir;
  lay_out(profile, dir.path(), DeviceState{});
  // A write that no event announces, made before the recorder watched: only the drain finds it.
  const std::string enabled = "/sys/devices/system/cpu/bw_prof/bwmon0/mon_enabled";
  std::ofstream(dir.path() + enabled) << "1";
  WriteRecorder recorder(profile, dir.path());
  std::string log;
  for (const auto& [w, suspended] : steps) {
    std::ofstream(dir.path() + w.path).seekp(w.offset) << w.bytes;  // one write
    // The end of a run drains rather than collects.
    &w == &steps.back().first ? recorder.drain(w.time_s) : recorder.collect(w.time_s);
    EXPECT_EQ(recorder.charging_suspended(), suspended) << format_write(w);
    if (!w.bytes.empty()) log += format_write(w) + "\n";
  }
  EXPECT_TRUE(recorder.drain(20).empty()) << "a write is taken once";
  EXPECT_EQ(read_file(dir.path() + "/writes.log"), log + "11.000000 " + enabled + " 0 31\n");
  EXPECT_EQ(read_file(dir.path() + period), "30") << "a driver's setting stays in its node";
  EXPECT_EQ(format_write({1.004211, "/sys/x", 12, "\xff\n"}), "1.004211 /sys/x 12 ff0a");
}

// The log and the process tree, stepped by hand.

TEST(LogcatTest, PrintsEntriesOfTheChosenTagsAndPrioritiesFromTheGivenTimeOn) {
  const std::string b0 = "2026-11-23 10:00:00.000 I/Ravelin ( 2304): a\n";
  const std::string b1 = "2026-11-23 10:00:01.000 D/Ravelin ( 2304): b\n";
  const std::string b2 = "2026-11-23 10:00:01.000 W/Tracking( 1187): c\n";
  const std::string b3 = "2026-11-23 10:00:02.000 F/VrCompositor( 1021): d\n";
  // The last entry is still being written.
  const std::string buffer = b0 + "not an entry\n" + b1 + b2 + b3 + b0.substr(0, 30);
  const std::string banner = "--------- beginning of main\n";
  // Arguments and what logcat prints, "error" when it refuses them.
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"-s", "Ravelin:I", "-v", "time,year", "-t", "2026-11-23 10:00:00.000"}, banner + b0},
      {{"-s", "Tracking:I", "Ravelin:V", "-v", "time,year", "-t", "2026-11-23 10:00:01.000"},
       banner + b1 + b2},
      {{"-s", "Ravelin:I", "-t", "2026-11-23 10:00:00.001"}, ""},
      {{"*:W", "-v", "year,time", "-d"}, banner + b2 + b3},
      {{"-v", "time"}, banner + b0.substr(5) + b1.substr(5) + b2.substr(5) + b3.substr(5)},
      {{"-t", "0-1-1 0:0:0.';x;'"}, "error"},
      {{"-t", "2026-11-23 10:00:00.000'"}, "error"},
      {{"-v", "brief"}, "error"},
      {{"Ravelin:X"}, "error"},
  };
  for (const auto& [args, out] : cases) {
    std::string error;
    auto query = parse_logcat_args(args, error);
    EXPECT_EQ(query ? select_entries(*query, buffer) : "error", out) << args[0] << args[1];
  }
}

TEST(LogcatTest, ModelLogsAtItsRatesIntoARingOfWholeNewestEntriesInTheLayoutReadersRelyOn) {
  DeviceState headset;
  headset.load = 1.0;
  for (int i = 0; i < 6000; ++i) step_log(headset, {}, DeviceModel::kStepSeconds);  // a minute
  LogActivity& activity = headset.log;
  EXPECT_EQ(activity.ravelin_lines, 60u);
  EXPECT_EQ(activity.telemetry_lines, 300u);
  activity.ravelin_lines = 5000;  // some 800 KiB at once
  TemporaryDir state;
  lay_out_log(state.path());
  LogWriter(state.path()).write(activity);
  const std::string buffer = read_file(state.path() + "/log/main");
  EXPECT_LE(buffer.size(), 256u * 1024);
  EXPECT_GT(buffer.size(), 200u * 1024);
  std::string error;
  EXPECT_EQ(select_entries(*parse_logcat_args({"-v", "time,year"}, error), buffer),
            "--------- beginning of main\n" + buffer);
  EXPECT_NE(buffer.find(" I/Ravelin ( 2304): FPS="), std::string::npos);
  EXPECT_NE(buffer.find(" I/Tracking( 1187): cDSP HexagonTelemetry Freq: "), std::string::npos);
}

TEST(ProcTree, ShortLivedThreadsStartAndEndAndTheFilesFollow) {
  const Profile& profile = *find_profile("generic-300");
  TemporaryDir state;
  DeviceModel model(profile.model, 3);
  lay_out(profile, state.path(), model.state());
  LiveThreads live(profile.model.threads, model.state().threads, state.path());
  auto on_disk = [&] {  // the thread directories, by name
    std::set<std::string> tids;
    for (const auto& entry : fs::recursive_directory_iterator(state.path() + "/proc")) {
      if (entry.path().parent_path().filename() == "task") tids.insert(entry.path().filename());
    }
    return tids;
  };
  EXPECT_EQ(on_disk().size(), 300u);
  // Nodes a fault run turned into FIFOs, one with a silent writer and one with none, stay so.
  std::map<int, std::string> replaced;
  for (std::size_t i : {0, 1}) {
    const ThreadState& t = model.state().threads.threads[i];
    replaced[t.tid] = state.path() + thread_dir(t.pid, t.tid) + "/time_in_state";
    fs::remove(replaced[t.tid]);
    ASSERT_EQ(::mkfifo(replaced[t.tid].c_str(), 0644), 0);
  }
  const int silent = ::open(replaced.begin()->second.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  for (int i = 0; i < 1000; ++i) {
    model.step();
    live.update(model.state().threads);
  }
  // Ten seconds at two new threads a second, each gone within three.
  EXPECT_GE(model.state().threads.started, 10);
  EXPECT_LT(model.state().threads.threads.size(), 310u);
  std::set<std::string> expected;
  for (const ThreadState& t : model.state().threads.threads) {
    expected.insert(std::to_string(t.tid));
    std::string dir = state.path() + thread_dir(t.pid, t.tid);
    if (replaced.contains(t.tid)) {
      EXPECT_TRUE(fs::is_fifo(dir + "/time_in_state")) << t.tid;
      replaced.erase(t.tid);
      continue;
    }
    EXPECT_EQ(read_file(dir + "/time_in_state"), time_in_state(profile.model.threads, t)) << t.tid;
    EXPECT_EQ(read_file(dir + "/comm"), t.traits.comm + "\n") << t.tid;
  }
  EXPECT_EQ(on_disk(), expected);
  EXPECT_TRUE(replaced.empty()) << "a replaced thread ended, so its node was never rewritten";
  ::close(silent);
}

// The sim binary end to end.

// `env` entries (NAME=VALUE) win over this process's; `during` gets the sim's pid while it runs.
Outcome run_sim(std::vector<std::string> args, std::vector<std::string> env = {},
                const std::function<void(pid_t)>& during = {}) {
  args.insert(args.begin(), SIM_BINARY);
  return test_support::run_process(
      args, {.env = std::move(env), .in_child = {}, .on_start = during, .on_output = {}});
}

// Cases that need the sandbox itself.
class SandboxTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto& reason = test_support::sandbox_unavailable(SIM_BINARY)) GTEST_SKIP() << *reason;
  }
};
using SandboxThreaded = SandboxTest;

TEST_F(SandboxTest, CommandSeesTheHeadsetAndTheHostKeepsNothingOfTheRun) {
  TemporaryDir tmp;
  std::string pid = std::to_string(getpid()), token = "emberline-sim-" + pid, seconds = "99" + pid;
  std::string places = tmp.path() +
                       " / /tmp /data/local/tmp /sys /dev/shm /usr /etc /var/tmp /root " SOURCE_DIR
                       " " BINARY_DIR;
  std::string spray = "for d in " + places + "; do echo x > $d/" + token + "; done 2>/dev/null\n" +
                      "cat /data/local/tmp/" + token + "; sleep " + seconds + " >/dev/null 2>&1 &";
  Outcome o = run_sim(
      {"run", "--frozen", "--", "sh", "-c",
       "ls /sys; echo $TMPDIR; grep -c '^cpu[0-9]' /proc/stat; grep device= /system/build.prop\n"
       "read -r p x < /proc/$$/stat && [ $p = $$ ] && grep -q libc /proc/self/maps && echo self\n"
       "for d in /system /proc " SOURCE_DIR " " BINARY_DIR
       "; do touch $d/x 2>/dev/null || printf r; done; echo\n"
       "mkfifo /data/misc/dsp/f && test -p $EMBERLINE_SIM_STATE/data/misc/dsp/f && echo fifo\n"
       "sleep 0.1; cd /sys/class/power_supply; cat battery/current_now battery/voltage_now "
       "usb/current_now usb/input_current_now usb/voltage_now\n" +  // frozen: no model runs
           spray},
      {"TMPDIR=" + tmp.path()});
  const DeviceState s = DeviceModel(find_profile("generic")->model, 1).state();
  // What the command prints, the power-supply class in micro units.
  std::string shown = "class\ndevices\n/tmp\n8\nro.product.device=generic\nself\nrrrr\nfifo\n";
  for (double value : {s.battery_a, s.battery_v, s.usb_a, s.usb_a, s.usb_v})
    shown += std::to_string(std::lround(value * 1e6)) + "\n";
  EXPECT_EQ(o.out + o.err, shown + "x\n");
  std::istringstream each(places);
  for (std::string p; each >> p;) EXPECT_FALSE(fs::exists(p + "/" + token)) << p;
  EXPECT_TRUE(fs::is_empty(tmp.path())) << "the temporary state dir is removed";
  for (const auto& entry : fs::directory_iterator("/proc")) {
    EXPECT_NE(read_file(entry.path() / "cmdline"), "sleep" + std::string(1, '\0') + seconds + '\0')
        << "left running";
  }
}

TEST_F(SandboxTest, WritesDriveTheModelAndAreLoggedUpToTheLastBeforeExit) {
  TemporaryDir state;
  Outcome o = run_sim(
      {"run", "--profile=fennick", "--state", state.path(), "--", "sh", "-c",
       "c=/sys/class/power_supply/battery/current_now; n=/sys/class/qcom-battery/input_suspend; "
       "await() { i=0; until [ $(cat $c) $1 0 ]; do i=$((i+1)); [ $i -gt 2000 ] && exit 9; "
       "sleep 0.01; done; }; printf 1 > $n; await -gt; printf 0 > $n; await -lt; "
       "printf 1 | dd of=$n bs=1 seek=3 conv=notrunc 2>/dev/null"});
  ASSERT_EQ(o.exit_code, 0) << o.err;
  std::vector<std::string> writes;
  for (const std::string& line : test_support::lines(read_file(state.path() + "/writes.log")))
    writes.push_back(line.substr(line.find(' ')));
  const std::string n = " /sys/class/qcom-battery/input_suspend";
  EXPECT_EQ(writes, (std::vector{n + " 0 31", n + " 0 30", n + " 3 31"}));
}

TEST_F(SandboxTest, ExitStatusIsTheCommandsAndSignalsReachIt) {
  // A signal that is not passed on fails the case in ten seconds or so, rather than hanging it.
  const char* wait = "touch $EMBERLINE_SIM_STATE/ready; for i in $(seq 1000); do sleep 0.01; done";
  // The signal sent once COMMAND is ready, what COMMAND does, the sim's status. KILL goes to
  // bwrap, the sim's child, which then has no status of its own to give.
  const std::tuple<int, const char*, int> cases[] = {{0, "exit 7", 7},    {0, "kill -KILL $$", 137},
                                                     {SIGHUP, wait, 41},  {SIGINT, wait, 42},
                                                     {SIGTERM, wait, 43}, {SIGKILL, wait, 137}};
  for (auto [signal, then, status] : cases) {
    TemporaryDir state;
    Outcome o = run_sim(
        {"run", "--frozen", "--state", state.path(), "--", "sh", "-c",
         "trap 'exit 41' HUP; trap 'exit 42' INT; trap 'exit 43' TERM; " + std::string(then)},
        {}, [&, sig = signal](pid_t sim) {
          if (sig == 0) return;
          for (int i = 0; i < 10000 && !fs::exists(state.path() + "/ready"); ++i) usleep(1000);
          std::string task = "/proc/" + std::to_string(sim) + "/task/" + std::to_string(sim);
          kill(sig == SIGKILL ? std::stoi(read_file(task + "/children")) : sim, sig);
        });
    EXPECT_EQ(o.exit_code, status) << then << ", signal " << signal;
  }
  EXPECT_EQ(run_sim({"run", "--frozen", "--", "no-such-command-here"}).exit_code, 127);
}

TEST(SandboxFailureTest, NoNamespaceIsAClearErrorAnd125) {
  TemporaryDir bin;
  std::ofstream(bin.path() + "/bwrap") << "#!/bin/sh\necho 'bwrap: no namespace' >&2; exit 1\n";
  fs::permissions(bin.path() + "/bwrap", fs::perms::owner_all);
  Outcome o = run_sim({"run", "--", "true"}, {"PATH=" + bin.path() + ":/usr/bin:/bin"});
  EXPECT_EQ(o.exit_code, 125);
  EXPECT_NE(o.err.find("could not set up the sandbox"), std::string::npos) << o.err;
}

TEST_F(SandboxThreaded, SanitizerRuntimesWorkInside) {
  Outcome o = run_sim({"run", "--frozen", "--", SIM_PROBE},
                      {"ASAN_OPTIONS=detect_leaks=1", "TSAN_OPTIONS=halt_on_error=0"});
  const char* report = std::string_view(SIM_PROBE_SANITIZER) == "thread"
                           ? "ThreadSanitizer: data race"
                           : "LeakSanitizer: detected memory leaks";
  EXPECT_NE(o.err.find(report), std::string::npos) << o.err;
}

}  // namespace
}  // namespace emberline::sim
