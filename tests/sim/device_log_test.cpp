// The headset's log: what the model logs, and what its logcat prints of the buffer.

#include "device_log.h"

#include <gtest/gtest.h>

#include <fstream>

namespace emberline::sim {
namespace {

TEST(LogcatTest, PrintsEntriesOfTheChosenTagsAndPrioritiesFromTheGivenTimeOn) {
  const std::string b0 = "2026-11-23 10:00:00.000 I/Ravelin ( 2304): a\n";
  const std::string b1 = "2026-11-23 10:00:01.000 D/Ravelin ( 2304): b\n";
  const std::string b2 = "2026-11-23 10:00:01.000 W/Tracking( 1187): c\n";
  const std::string b3 = "2026-11-23 10:00:02.000 I/VrCompositor( 1021): d\n";
  // The last entry is still being written.
  const std::string buffer = b0 + "not an entry\n" + b1 + b2 + b3 + b0.substr(0, 30);
  const std::string banner = "--------- beginning of main\n";
  struct Case {
    std::vector<std::string> args;
    std::string out;  // "error" when the arguments are refused
  } cases[] = {
      {{"-s", "Ravelin:I", "-v", "time,year", "-t", "2026-11-23 10:00:00.000"}, banner + b0},
      {{"-s", "Tracking:I", "Ravelin:V", "-v", "time,year", "-t", "2026-11-23 10:00:01.000"},
       banner + b1 + b2},
      {{"-s", "Ravelin:I", "-t", "2026-11-23 10:00:00.001"}, ""},
      {{"*:W", "-v", "year,time", "-d"}, banner + b2},
      {{"-v", "time"}, banner + b0.substr(5) + b1.substr(5) + b2.substr(5) + b3.substr(5)},
      {{"-t", "0-1-1 0:0:0.';x;'"}, "error"},
      {{"-t", "2026-11-23 10:00:00.000'"}, "error"},
      {{"-v", "brief"}, "error"},
      {{"Ravelin:X"}, "error"},
  };
  for (const auto& c : cases) {
    std::string error;
    auto query = parse_logcat_args(c.args, error);
    EXPECT_EQ(query ? select_entries(*query, buffer) : "error", c.out) << c.args[0] << c.args[1];
  }
}

TEST(LogcatTest, ModelLogsAtItsRatesFollowingTheLoadInTheLayoutReadersRelyOn) {
  LogActivity idle, busy;
  for (int i = 0; i < 6000; ++i) {  // a minute
    step_log(idle, 0.0);
    step_log(busy, 1.0);
  }
  EXPECT_EQ(idle.ravelin_lines, 60u);
  EXPECT_EQ(idle.telemetry_lines, 300u);
  EXPECT_LT(busy.fps, idle.fps);
  EXPECT_GT(busy.cfl_p95_ms, idle.cfl_p95_ms);
  EXPECT_GT(busy.dsp_util[0], idle.dsp_util[0]);
  EXPECT_GT(busy.dsp_mhz, idle.dsp_mhz);
  const auto now = std::chrono::system_clock::now();
  for (const LogActivity& log : {idle, busy}) {
    const std::string dsp = log_entry(now, 'I', "Tracking", 1187, telemetry_message(log));
    EXPECT_EQ(dsp.substr(48, 16), "HexagonTelemetry") << dsp;
    EXPECT_TRUE(dsp.size() >= 96 && dsp.size() < 256) << dsp;
    const std::string frames = log_entry(now, 'I', "Ravelin", 2304, ravelin_message(log));
    EXPECT_EQ(frames.substr(23, 26), " I/Ravelin ( 2304): FPS=" + std::to_string(log.fps));
    EXPECT_LT(frames.size(), 500u);
  }
}

TEST(LogcatTest, WriterKeepsTheBufferToARingOfWholeNewestEntries) {
  TemporaryDir state;
  lay_out_log(state.path());
  LogActivity activity;
  activity.ravelin_lines = 5000;  // some 800 KiB
  LogWriter(state.path()).write(activity);
  std::ifstream file(state.path() + "/log/main");
  const std::string buffer(std::istreambuf_iterator<char>(file), {});
  EXPECT_LE(buffer.size(), 256u * 1024);
  EXPECT_GT(buffer.size(), 200u * 1024);
  std::string error;
  EXPECT_EQ(select_entries(*parse_logcat_args({"-v", "time,year"}, error), buffer),
            "--------- beginning of main\n" + buffer);
}

}  // namespace
}  // namespace emberline::sim
