// The two logcat plugins on planted log text: fields, averages, windows and hostile stamps.

#include <gtest/gtest.h>

#include <cstdio>
#include <optional>

#include "plugins/logcat_dsp_plugin.h"
#include "plugins/logcat_ravelin_plugin.h"
#include "plugins/logcat_window.h"

namespace emberline {
namespace {

// A plugin whose logcat runs print planted texts, one per output; nullopt is a failing popen.
template <typename P>
class Planted : public P {
 public:
  std::vector<std::string> commands;

  std::string output(std::optional<std::string> planted) {
    text = std::move(planted);
    P::on_output();
    return P::to_str();
  }

 protected:
  FILE* open_log(const std::string& command) override {
    commands.push_back(command);
    if (!text) return nullptr;
    return text->empty() ? std::fopen("/dev/null", "r") : fmemopen(text->data(), text->size(), "r");
  }
  void close_log(FILE* stream) override { std::fclose(stream); }

 private:
  std::optional<std::string> text;
};

const std::string kA = "2026-11-23 14:50:01.250", kB = "2026-11-23 14:50:02.500";
const std::string kHostile = "0-1-1 0:0:0.';>/tmp/p;' FPS=1\n2026-11-23 14:50:03.0$(id) FPS=1\n";

std::string ravelin(const std::string& stamp, const std::string& message) {
  return stamp + " I/Ravelin ( 2304): " + message + "\n";
}
// The marker lands in its column behind "cDSP ".
std::string dsp(const std::string& stamp, const std::string& message, const char* head = "cDSP ") {
  return stamp + " I/Tracking( 1187): " + head + message + "\n";
}
std::string load(const std::string& percentages, const std::string& freq = "787") {
  return "HexagonTelemetry Freq: " + freq + " MHz, Load: " + percentages;
}

TEST(LogcatWindow, OnlyAStampOfTheExactShapeIsTaken) {
  // Only the 23 characters ever reach the command.
  for (const std::string& line : {kA + " I/Ravelin: x\n", kA + " ';reboot;'\n"}) {
    EXPECT_EQ(logcat::leading_stamp(line.c_str()), kA) << line;
  }
  // clang-format off
  // The second is one that strptime alone takes; the ninth is overlong.
  for (const char* line : {"2026-11-23 14:50:01.25' FPS=1\n", "0-1-1 0:0:0.';>/tmp/p;' FPS=1\n",
                           "2026-11-23 14:50:01.$(id) FPS=1\n", "2026-11-23 14:50:01.`id` FPS=1\n",
                           "2026-11-23 14:50:01.2\n", "2026-11-23 14:50:01.2\n3 x\n",
                           "2026-11-23 14:50:01.2500 FPS=1\n", "2026-13-23 14:50:01.250 x\n",
                           "--------- beginning of main\n", ""}) {
    EXPECT_EQ(logcat::leading_stamp(line), "") << line;
  }
  // clang-format on
}

struct Step {
  std::optional<std::string> text;  // nullopt: logcat cannot be started
  std::string report;               // how the plugin's report begins
  std::string window;               // stamp of the next run
};

// Each output in turn, then the window the next run asks for.
template <typename P>
void check_windows(const std::string& command, const std::vector<Step>& steps) {
  const std::time_t before = std::time(nullptr);
  Planted<P> plugin;
  const std::time_t after = std::time(nullptr);
  plugin.init();
  for (const Step& s : steps) {
    EXPECT_EQ(plugin.output(s.text).substr(0, s.report.size()), s.report)
        << s.text.value_or("(no logcat)");
    plugin.output(std::nullopt);  // shows the next window without reading anything
    EXPECT_EQ(plugin.commands.back(), command + "'" + s.window + "'");
  }
  // The first window opens at construction, in whole seconds.
  EXPECT_TRUE(plugin.commands[0] == command + "'" + logcat::start_stamp(before) + "'" ||
              plugin.commands[0] == command + "'" + logcat::start_stamp(after) + "'");
}

// Fields average over the lines of a window that carry them; a window without one is null.
TEST(LogcatRavelin, FieldsAverageOverEachWindowWhichStartsAtTheLastDatedLine) {
  const std::string nulls = "fps: null | prd: null | stale_frames: null | tears: null | cfl: null";
  check_windows<LogcatRavelinPlugin>(
      "/system/bin/logcat -s Ravelin:I -v time,year -t ",
      {{ravelin(kA, "FPS=60/72,Prd=41ms,Tear=0,Stale=2,ICFLp95=11.25") +
            ravelin(kA, "FPS=71/72,Prd=43ms,Tear=1,Stale=0") +
            ravelin(kB, "FPS=72/72,Prd=38ms,Tear=0,Stale=1,ICFLp95=12.75"),
        "fps: 67.67 | prd: 40.67 | stale_frames: 1.00 | tears: 0.33 | cfl: 12.00", kB},
       {"", nulls, kB},
       {std::nullopt, nulls, kB},
       {"--------- beginning of main\n" + kHostile, nulls, kB},
       // An undated line; another field whose name begins with Stale; nothing behind "="; the
       // rest of an entry longer than the buffer, which has no date of its own.
       {"FPS=1000\n" + ravelin(kA, "FPS=7,Stale2/5/10/max=3/0/0/1,Prd=,ICFLp95=9.5ms," +
                                       std::string(440, 'x') + ",Tear=9"),
        "fps: 7.00 | prd: null | stale_frames: null | tears: null | cfl: 9.50", kA}});
}

// Marked lines give averages, a maximum and the frequency; a window without telemetry keeps the
// numbers, but its dated lines still move the window.
TEST(LogcatDsp, MarkedLinesAverageAndPeriodsWithoutTelemetryKeepTheNumbers) {
  const std::string rest = "(scalar 10.00%, HVX 8.00%, HMX 2.00%, UDMA 1.00%)";
  // 95 characters with the line end, one short of the shortest taken.
  const std::string short_line = dsp(kA, "HexagonTelemetry Freq: 7 50.0% 1.% 1.% 1.% 1.%");
  const std::string both =
      "dsp_util_max_prct: 30.500% | dsp_util_avg_prct: 25.500% | "
      "dsp_scalar_util_avg_prct: 15.000% | dsp_hvx_util_avg_prct: 6.000% | "
      "dsp_hmx_util_avg_prct: 2.500% | dsp_udma_util_avg_prct: 1.500% | dsp_freq: 911.50";
  check_windows<LogcatDspPlugin>(
      "/system/bin/logcat -s \"Tracking:I\" -v time,year -t ",
      // Skipped whole: too short, marker elsewhere, no frequency, four percentages, a bare
      // point, a number no float holds, the marker only in the rest of an overlong entry.
      {{short_line + dsp(kA, load("50.0% " + rest), "cDSP: ") +
            dsp(kA, "HexagonTelemetry Load: 50.0% " + rest) +
            dsp(kA, load("50.0% (scalar 1.0% HVX 1.0% HMX 1.0%) clients: 3")) +
            dsp(kA, load(".% " + rest)) + dsp(kA, load("50.0% " + rest, std::string(41, '9'))) +
            dsp(kA, std::string(300, 'x') + load("50.0% " + rest)),
        "dsp_util_max_prct: null | dsp_util_avg_prct: null | dsp_scalar_util_avg_prct: null | "
        "dsp_hvx_util_avg_prct: null | dsp_hmx_util_avg_prct: null | "
        "dsp_udma_util_avg_prct: null | dsp_freq: null",
        kA},
       {dsp(kA, load("20.5% " + rest)) +
            dsp(kA, load("30.5% (scalar 20.0%, HVX 4.0%, HMX 3.0%, UDMA 2.0%)", "1036")),
        both, kA},
       {dsp(kB, "map relocalized, 6DoF tracking good"), both, kB},
       {"", both, kB},
       {std::nullopt, both, kB},
       {"--------- beginning of main\n" + kHostile, both, kB},
       {dsp(kA, "HexagonTelemetry Freq: 77 60.0% 1.% 1.% 1.% 1.%"), "dsp_util_max_prct: 60.000% | ",
        kA}});
}

}  // namespace
}  // namespace emberline
