// The simulated headset: its parts in-process, and the sim binary end to end.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <tuple>

#include "model.h"
#include "profile.h"
#include "state_dir.h"
#include "support/process.h"
#include "write_recorder.h"

namespace emberline::sim {
namespace {

namespace fs = std::filesystem;

using test_support::read_file;

// The headset in-process: its model stepped by hand, its files laid out, the writes into them.

class ProfileTest : public testing::TestWithParam<const char*> {
 protected:
  const Profile& profile = *find_profile(GetParam());
};

TEST_P(ProfileTest, ModelDischargesExactlyWhileChargingIsSuspendedAndSagsUnderLoad) {
  const PowerParams& power = profile.model.power;
  DeviceModel model(profile.model, 1);
  for (bool suspended : {false, true, false}) {
    model.set_charging_suspended(suspended);
    double amps[2] = {}, volts[2] = {};  // idle, busy
    int count[2] = {};
    for (int i = 0; i < 12000; ++i) {  // two minutes
      model.step();
      const DeviceState& s = model.state();
      ASSERT_EQ(s.battery_a > 0, suspended) << "step " << model.steps();
      ASSERT_EQ(s.usb_a > 0, !suspended) << "step " << model.steps();
      // What the charger delivers is what the system and the battery take.
      if (!suspended) {
        ASSERT_NEAR(s.usb_v * s.usb_a * power.charger_efficiency,
                    s.battery_v * (s.system_a - s.battery_a), 1e-9);
      }
      if (s.load != 0 && s.load < 0.5) continue;
      amps[s.load != 0] += s.battery_a;
      volts[s.load != 0] += s.battery_v;
      ++count[s.load != 0];
    }
    double busy_a = amps[1] / count[1] - amps[0] / count[0];
    EXPECT_GT(busy_a, 0.3 * power.load_a);
    // The battery's internal resistance takes its share of the extra draw off the terminals.
    EXPECT_LT(volts[1] / count[1] - volts[0] / count[0], -0.5 * power.internal_ohm * busy_a);
  }
}

TEST_P(ProfileTest, LayoutShowsIdentityAndLiveCurrentsAndLeavesSuspendNodesEmpty) {
  TemporaryDir dir;
  DeviceState initial = DeviceModel(profile.model, 1).state();
  lay_out(profile, dir.path(), initial);
  auto read = [&dir](const std::string& path) { return read_file(dir.path() + path); };
  std::string props = read("/system/build.prop");
  EXPECT_EQ(props.substr(props.rfind("ro.product.device=")),
            "ro.product.device=" + std::string(GetParam()) + "\n");

  const std::string ps = "/sys/class/power_supply/";
  for (auto [path, value] : {std::pair{ps + "battery/current_now", initial.battery_a},
                             {ps + "battery/voltage_now", initial.battery_v},
                             {ps + "usb/current_now", initial.usb_a},
                             {ps + "usb/input_current_now", initial.usb_a},
                             {ps + "usb/voltage_now", initial.usb_v}}) {
    EXPECT_EQ(read(path), std::to_string(std::lround(value * 1e6)) + "\n") << path;
  }

  int recorded = 0;
  for (const Node& n : profile.nodes) {
    if (n.recording == Recording::none) continue;
    // A latched node shows the driver's setting; the others start empty.
    bool latched = n.recording == Recording::latch;
    recorded += !latched;
    EXPECT_EQ(read(n.path), latched ? n.content : "") << n.path;
  }
  EXPECT_EQ(recorded, 4);

  // The tool holds its descriptors open; a shorter value must leave no tail of the longer one.
  int held = open((dir.path() + ps + "battery/current_now").c_str(), O_RDONLY);
  LiveNodes(profile, dir.path()).render(DeviceState{});
  char buf[32] = {};
  ASSERT_GT(pread(held, buf, sizeof buf - 1, 0), 0);
  EXPECT_STREQ(buf, "0\n");
  close(held);
}

INSTANTIATE_TEST_SUITE_P(Profiles, ProfileTest, testing::Values("generic", "fennick", "brantley"),
                         [](const auto& info) { return std::string(info.param); });

TEST(WriteRecorderTest, LogsEachWriteWhereItBeganAndFollowsTheChargingNodes) {
  const std::string qcom = "/sys/class/qcom-battery/input_suspend", ps = "/sys/class/power_supply/";
  const std::string battery = ps + "battery/input_suspend", usb = ps + "usb/input_suspend",
                    wireless = ps + "wireless/input_suspend";
  // Each write, with whether charging is suspended after it; the time is the order.
  const std::vector<std::pair<Write, bool>> steps{
      {{1, qcom, 0, "1"}, true},
      {{2, wireless, 0, "0"}, true},  // wireless input is not the charger
      {{3, battery, 0, "1\n"}, true},
      {{4, qcom, 0, "0"}, true},  // the battery node still says suspend
      {{5, battery, 3, "0"}, false},
      {{6, usb, 0, "1"}, true},
      {{7, usb, 0, "on"}, true},  // not a number: changes nothing
      {{8, usb, 0, "0"}, false},
      {{9, wireless, 0, "1"}, false},
  };
  const Profile& profile = *find_profile("generic");
  TemporaryDir dir;
  lay_out(profile, dir.path(), DeviceState{});
  WriteRecorder recorder(profile, dir.path());
  std::string log;
  for (const auto& [w, suspended] : steps) {
    std::ofstream(dir.path() + w.path, std::ios::in).seekp(w.offset) << w.bytes;  // one write
    // The end of a run drains rather than collects.
    &w == &steps.back().first ? recorder.drain(w.time_s) : recorder.collect(w.time_s);
    EXPECT_EQ(recorder.charging_suspended(), suspended) << format_write(w);
    log += format_write(w) + "\n";
  }
  EXPECT_TRUE(recorder.drain(10).empty()) << "a write is taken once";
  EXPECT_EQ(read_file(dir.path() + "/writes.log"), log);
  EXPECT_EQ(format_write({1.004211, "/sys/x", 12, "\xff\n"}), "1.004211 /sys/x 12 ff0a");
}

// The sim binary end to end.

struct Outcome {
  int status;          // -1 if the sim died by a signal
  std::string output;  // standard output and error
};

// `env` entries (NAME=VALUE) win over this process's; `during` gets the sim's pid while it runs.
Outcome run_sim(std::vector<std::string> args, std::vector<std::string> env = {},
                const std::function<void(pid_t)>& during = {}) {
  args.insert(args.begin(), SIM_BINARY);
  test_support::Launch launch;
  launch.env = std::move(env);
  launch.on_start = during;
  test_support::Outcome o = test_support::run_process(args, launch);
  return {o.exit_code, o.out + o.err};
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
                      "cat /data/local/tmp/" + token + "; sleep " + seconds + " &";
  Outcome o = run_sim(
      {"run", "--frozen", "--", "sh", "-c",
       "ls /sys; grep -c '^cpu[0-9]' /proc/stat; grep device= /system/build.prop\n"
       "read -r p x < /proc/$$/stat && [ $p = $$ ] && grep -q libc /proc/self/maps && echo self\n"
       "for d in /system /proc " SOURCE_DIR " " BINARY_DIR
       "; do touch $d/x 2>/dev/null || printf r; done; echo\n"
       "mkfifo /data/misc/dsp/f && test -p $EMBERLINE_SIM_STATE/data/misc/dsp/f && echo fifo\n"
       "sleep 0.1; cat /sys/class/power_supply/battery/current_now\n" +  // frozen: no model runs
           spray},
      {"TMPDIR=" + tmp.path()});
  std::string current =
      micro_units(DeviceModel(find_profile("generic")->model, 1).state().battery_a);
  EXPECT_EQ(o.output,
            "class\ndevices\n8\nro.product.device=generic\nself\nrrrr\nfifo\n" + current + "x\n");
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
  ASSERT_EQ(o.status, 0) << o.output;
  std::istringstream log(read_file(state.path() + "/writes.log"));
  std::vector<std::string> writes;
  for (std::string line; std::getline(log, line);) writes.push_back(line.substr(line.find(' ')));
  const std::string n = " /sys/class/qcom-battery/input_suspend";
  EXPECT_EQ(writes, (std::vector{n + " 0 31", n + " 0 30", n + " 3 31"}));
}

TEST_F(SandboxTest, ExitStatusIsTheCommandsAndSignalsReachIt) {
  // A signal that is not passed on fails the case in ten seconds or so, rather than hanging it.
  const char* wait = "touch $EMBERLINE_SIM_STATE/ready; for i in $(seq 1000); do sleep 0.01; done";
  // The signal sent once COMMAND is ready, what COMMAND does, the sim's status.
  for (auto [signal, then, status] : {std::tuple{0, "exit 7", 7},
                                      {0, "kill -KILL $$", 137},
                                      {SIGHUP, wait, 41},
                                      {SIGINT, wait, 42},
                                      {SIGTERM, wait, 43}}) {
    TemporaryDir state;
    Outcome o = run_sim(
        {"run", "--frozen", "--state", state.path(), "--", "sh", "-c",
         "trap 'exit 41' HUP; trap 'exit 42' INT; trap 'exit 43' TERM; " + std::string(then)},
        {}, [&, sig = signal](pid_t sim) {
          if (sig == 0) return;
          for (int i = 0; i < 10000 && !fs::exists(state.path() + "/ready"); ++i) usleep(1000);
          kill(sim, sig);
        });
    EXPECT_EQ(o.status, status) << then << ", signal " << signal;
  }
}

TEST(SandboxFailureTest, NoNamespaceIsAClearErrorAndNoCommandIs127) {
  TemporaryDir bin;
  std::ofstream(bin.path() + "/bwrap")
      << "#!/bin/sh\necho 'bwrap: Creating new namespace failed: Operation not permitted' >&2\n"
         "exit 1\n";
  fs::permissions(bin.path() + "/bwrap", fs::perms::owner_all);
  Outcome o = run_sim({"run", "--", "true"}, {"PATH=" + bin.path() + ":/usr/bin:/bin"});
  EXPECT_EQ(o.status, 125);
  EXPECT_NE(o.output.find("could not set up the sandbox"), std::string::npos) << o.output;
  EXPECT_EQ(run_sim({"run", "--", "no-such-command-here"}).status, 127);
}

TEST_F(SandboxThreaded, SanitizerRuntimesWorkInside) {
  Outcome o = run_sim({"run", "--frozen", "--", SIM_PROBE},
                      {"ASAN_OPTIONS=detect_leaks=1", "TSAN_OPTIONS=halt_on_error=0"});
  EXPECT_EQ(o.output.find("child failed"), std::string::npos) << o.output;
  EXPECT_EQ(o.output.find("fatal error"), std::string::npos) << o.output;
  const char* report = std::string_view(SIM_PROBE_SANITIZER) == "thread"
                           ? "ThreadSanitizer: data race"
                           : "LeakSanitizer: detected memory leaks";
  EXPECT_NE(o.output.find(report), std::string::npos) << o.output;
}

}  // namespace
}  // namespace emberline::sim
