// The headset's log: what the model logs, and what its logcat prints of the buffer.

#include "device_log.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace emberline::sim {
namespace {

TEST(LogcatTest, PrintsEntriesOfTheChosenTagsAndPrioritiesFromTheGivenTimeOn) {
  const std::string b0 = "2026-11-23 10:00:00.000 I/Ravelin ( 2304): a\n";
  const std::string b1 = "2026-11-23 10:00:01.000 D/Ravelin ( 2304): b\n";
  const std::string b2 = "2026-11-23 10:00:01.000 W/Tracking( 1187): c\n";
  const std::string b3 = "2026-11-23 10:00:02.000 I/VrCompositor( 1021): d\n";
  const std::string partial = "2026-11-23 10:00:03.000 E/Ravelin ( 2304): e";
  const std::string buffer = b0 + "not an entry\n" + b1 + b2 + b3 + partial;
  const std::string banner = "--------- beginning of main\n";
  struct Case {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {{"-s", "Ravelin:I", "-v", "time,year", "-t", "2026-11-23 10:00:00.000"}, banner + b0},
      {{"-s", "Tracking:I", "Ravelin:V", "-v", "time,year", "-t", "2026-11-23 10:00:01.000"},
       banner + b1 + b2},
      {{"-s", "Ravelin:I", "-v", "time,year", "-t", "2026-11-23 10:00:00.001"}, ""},
      {{"*:W", "-v", "year,time", "-d"}, banner + b2},
      {{"-v", "time", "-d"}, banner + b0.substr(5) + b1.substr(5) + b2.substr(5) + b3.substr(5)},
  };
  for (const auto& c : cases) {
    std::string error;
    auto query = parse_logcat_args(c.args, error);
    ASSERT_TRUE(query) << error;
    EXPECT_EQ(select_entries(*query, buffer), c.out) << c.args[0] << " " << c.args[1];
  }
  for (std::vector<std::string> bad : {std::vector<std::string>{"-t", "0-1-1 0:0:0.';x;'"},
                                       {"-t", "2026-11-23 10:00:00.000'"},
                                       {"-v", "brief"},
                                       {"-t"},
                                       {"Ravelin:X"}}) {
    std::string error;
    EXPECT_FALSE(parse_logcat_args(bad, error)) << bad[0];
    EXPECT_NE(error, "");
  }
}

TEST(LogcatTest, ModelLogsAtItsRatesAndLinesHaveTheLayoutReadersRelyOn) {
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
    EXPECT_GE(dsp.size(), 96u);
    EXPECT_LT(dsp.size(), 256u);
    const std::string frames = log_entry(now, 'I', "Ravelin", 2304, ravelin_message(log));
    EXPECT_EQ(frames.substr(23, 20), " I/Ravelin ( 2304): ");
    EXPECT_NE(frames.find("FPS=" + std::to_string(log.fps) + "/72,"), std::string::npos);
    EXPECT_NE(frames.find(",ICFLp95="), std::string::npos);
    EXPECT_LT(frames.size(), 500u);
  }
}

TEST(LogcatTest, LiveHeadsetLogsAndItsLogcatPrintsIt) {
  FILE* sim = popen(SIM_BINARY
                    " run -- sh -c 'sleep 2.5; /system/bin/logcat -s Ravelin:I Tracking:I "
                    "-v time,year -t \"2000-01-01 00:00:00.000\"; echo status $?'",
                    "r");
  ASSERT_NE(sim, nullptr);
  std::vector<std::string> lines;
  for (char line[512]; std::fgets(line, sizeof line, sim) != nullptr;) lines.push_back(line);
  EXPECT_EQ(pclose(sim), 0);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines.front(), "--------- beginning of main\n");
  EXPECT_EQ(lines.back(), "status 0\n");
  int frames = 0, telemetry = 0;
  for (const std::string& line : lines) {
    frames += line.find(" I/Ravelin ( 2304): FPS=") == 23;
    telemetry += line.find(" I/Tracking( 1187): cDSP HexagonTelemetry Freq: ") == 23;
  }
  EXPECT_GE(frames, 1);
  EXPECT_GE(telemetry, 1);
}

}  // namespace
}  // namespace emberline::sim
