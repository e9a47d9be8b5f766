// The two logcat plugins on planted log text: fields, averages, windows and hostile stamps.

#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "plugins/logcat_dsp_plugin.h"
#include "plugins/logcat_ravelin_plugin.h"
#include "plugins/logcat_window.h"

namespace emberline {
namespace {

// A plugin whose logcat runs print planted texts, one per output; nullopt is a failing popen.
template <typename P>
class Planted : public P {
 public:
  std::vector<std::optional<std::string>> texts;
  std::vector<std::string> commands;

  // Output of one planted text; gives the plugin's report line.
  std::string output(std::optional<std::string> text) {
    texts.push_back(std::move(text));
    P::on_output();
    return P::to_str();
  }

 protected:
  FILE* open_log(const std::string& command) override {
    commands.push_back(command);
    current = texts.at(commands.size() - 1);
    if (!current) return nullptr;
    if (current->empty()) return std::fopen("/dev/null", "r");
    return fmemopen(current->data(), current->size(), "r");
  }
  void close_log(FILE* stream) override { std::fclose(stream); }

 private:
  std::optional<std::string> current;
};

const std::string kRavelin = "/system/bin/logcat -s Ravelin:I -v time,year -t ";
const std::string kDsp = "/system/bin/logcat -s \"Tracking:I\" -v time,year -t ";

std::string ravelin(const std::string& stamp, const std::string& message) {
  return stamp + " I/Ravelin ( 2304): " + message + "\n";
}

// A telemetry line with the marker in its column.
std::string dsp(const std::string& stamp, const std::string& message,
                const std::string& head = "cDSP ") {
  return stamp + " I/Tracking( 1187): " + head + message + "\n";
}

const std::string kTelemetry = "HexagonTelemetry Freq: 787 MHz, Load: ";
std::string load(const std::string& overall, const std::string& rest) {
  return kTelemetry + overall + "% (scalar " + rest + ")";
}

TEST(LogcatWindow, StampMustHaveTheExactShapeAndGoesQuotedIntoTheCommand) {
  const std::string good = "2026-11-23 14:50:00.123";
  struct Case {
    std::string line;
    bool accepted;
  } cases[] = {
      {good + " I/Ravelin: x\n", true},
      {good + " ';reboot;'\n", true},  // only the stamp ever reaches the command
      {"2026-11-23 14:50:00.12' FPS=1\n", false},
      {"0-1-1 0:0:0.';>/tmp/p;' FPS=1\n", false},  // strptime alone takes this
      {"2026-11-23 14:50:00.$(id) FPS=1\n", false},
      {"2026-11-23 14:50:00.`id` FPS=1\n", false},
      {"2026-11-23 14:50:00.1\n", false},
      {"2026-11-23 14:50:00.12\n3 x\n", false},
      {"2026-11-23 14:50:00.1234 FPS=1\n", false},  // overlong
      {"2026-11-23\t14:50:00.123 x\n", false},
      {"2026-13-23 14:50:00.123 x\n", false},  // no month 13
      {"--------- beginning of main\n", false},
      {"", false},
  };
  for (const auto& c : cases) {
    const std::string_view stamp = logcat::leading_stamp(c.line.c_str());
    EXPECT_EQ(stamp, c.accepted ? good : "") << c.line;
  }
  EXPECT_EQ(logcat::window_command("logcat -t ", good), "logcat -t '" + good + "'");
}

TEST(LogcatRavelin, FieldsAverageOverTheLinesThatCarryThem) {
  const std::string t = "2026-11-23 14:50:0";
  struct Case {
    std::string text;
    std::string report;
  } cases[] = {
      {ravelin(t + "1.000", "FPS=60/72,Prd=41ms,Tear=0,Stale=2,ICFLp95=11.25") +
           ravelin(t + "2.000", "FPS=71/72,Prd=43ms,Tear=1,Stale=0") +
           ravelin(t + "3.000", "FPS=72/72,Prd=38ms,Tear=0,Stale=1,ICFLp95=12.75"),
       "fps: 67.67 | prd: 40.67 | stale_frames: 1.00 | tears: 0.33 | cfl: 12.00"},
      // The first piece holds stamp and tag; a field whose name only begins with Stale is
      // another field; nothing behind "=" is no number.
      {ravelin(t + "1.000", "FPS=7,Stale2/5/10/max=3/0/0/1,Prd=,Tear=2,ICFLp95=9.5ms"),
       "fps: 7.00 | prd: null | stale_frames: null | tears: 2.00 | cfl: 9.50"},
      // Undated lines count for nothing: a banner, the rest of an entry longer than the buffer.
      {"--------- beginning of main\nFPS=1000\n" +
           ravelin(t + "1.000", "FPS=50," + std::string(480, 'x') + ",Tear=9") +
           ravelin(t + "2.000", "Prd=40"),
       "fps: 50.00 | prd: 40.00 | stale_frames: null | tears: null | cfl: null"},
      {ravelin("2026-11-23 14:50:01.0'", "FPS=1"),
       "fps: null | prd: null | stale_frames: null | tears: null | cfl: null"},
  };
  for (const auto& c : cases) {
    Planted<LogcatRavelinPlugin> plugin;
    ASSERT_TRUE(plugin.init());
    EXPECT_EQ(plugin.output(c.text), c.report) << c.text;
  }
}

TEST(LogcatRavelin, WindowOpensAtConstructionAndMovesToTheLastDatedLine) {
  const std::time_t before = std::time(nullptr);
  Planted<LogcatRavelinPlugin> plugin;
  const std::time_t after = std::time(nullptr);
  plugin.init();
  const std::string a = "2026-11-23 14:50:01.250", b = "2026-11-23 14:50:02.500";
  const std::string nulls = "fps: null | prd: null | stale_frames: null | tears: null | cfl: null";
  struct Step {
    std::optional<std::string> text;
    std::string report;
  } steps[] = {
      {ravelin(a, "FPS=72") + ravelin(b, "FPS=70"),
       "fps: 71.00 | prd: null | stale_frames: null | tears: null | cfl: null"},
      {"--------- beginning of main\n", nulls},  // nothing dated: same window again
      {std::nullopt, nulls},                     // no logcat at all
      {"", nulls},
      {"0-1-1 0:0:0.';>/tmp/p;' FPS=1\n2026-11-23 14:50:03.0$(id) FPS=1\n", nulls},
      {ravelin(a, "Tear=3"),
       "fps: null | prd: null | stale_frames: null | tears: 3.00 | cfl: null"},
  };
  for (const auto& s : steps) EXPECT_EQ(plugin.output(s.text), s.report);
  ASSERT_EQ(plugin.commands.size(), 6u);
  const std::string first = plugin.commands[0];
  EXPECT_TRUE(first == kRavelin + "'" + logcat::start_stamp(before) + "'" ||
              first == kRavelin + "'" + logcat::start_stamp(after) + "'")
      << first;
  for (std::size_t i = 1; i < 6; ++i) EXPECT_EQ(plugin.commands[i], kRavelin + "'" + b + "'");
  plugin.output("");
  EXPECT_EQ(plugin.commands.back(), kRavelin + "'" + a + "'");
}

TEST(LogcatDsp, MarkedLinesGiveAveragesMaximumAndFrequency) {
  const std::string t = "2026-11-23 14:50:0";
  const std::string rest = "10.00%, HVX 8.00%, HMX 2.00%, UDMA 1.00%";
  const std::string nulls =
      "dsp_util_max_prct: null | dsp_util_avg_prct: null | dsp_scalar_util_avg_prct: null | "
      "dsp_hvx_util_avg_prct: null | dsp_hmx_util_avg_prct: null | "
      "dsp_udma_util_avg_prct: null | dsp_freq: null";
  std::string short_line = dsp(t + "1.000", load("50.0", rest));
  short_line = short_line.substr(0, 94) + "\n";  // 95 characters with the line end
  struct Case {
    std::string text;
    std::string report;
  } cases[] = {
      {dsp(t + "1.000", load("20.5", rest)) +
           dsp(t + "2.000",
               "HexagonTelemetry Freq: 1036 MHz, Load: 30.5% (scalar 20.0%, HVX 4.0%, HMX 3.0%, "
               "UDMA 2.0%)"),
       "dsp_util_max_prct: 30.500% | dsp_util_avg_prct: 25.500% | "
       "dsp_scalar_util_avg_prct: 15.000% | dsp_hvx_util_avg_prct: 6.000% | "
       "dsp_hmx_util_avg_prct: 2.500% | dsp_udma_util_avg_prct: 1.500% | dsp_freq: 911.50"},
      // Percent signs ahead of the load are percentages too: only their order counts.
      {dsp(t + "1.000",
           "HexagonTelemetry battery 80.0% Freq: 499 MHz, Load: 40.0% (scalar " + rest + ")"),
       "dsp_util_max_prct: 80.000% | dsp_util_avg_prct: 80.000% | "
       "dsp_scalar_util_avg_prct: 40.000% | dsp_hvx_util_avg_prct: 10.000% | "
       "dsp_hmx_util_avg_prct: 8.000% | dsp_udma_util_avg_prct: 2.000% | dsp_freq: 499.00"},
      // Skipped whole: too short, marker elsewhere, no frequency, four percentages, a bare
      // point, a number no float holds, the marker only in the rest of an overlong entry.
      {short_line + dsp(t + "1.000", load("50.0", rest), "cDSP: ") +
           dsp(t + "1.000", "HexagonTelemetry Load: 50.0% (scalar " + rest + ")") +
           dsp(t + "1.000", kTelemetry + "50.0% (scalar 1.0% HVX 1.0% HMX 1.0%) clients: 3") +
           dsp(t + "1.000", kTelemetry + ".% (scalar " + rest + ")") +
           dsp(t + "1.000", "HexagonTelemetry Freq: 9" + std::string(40, '9') +
                                " MHz, Load: 50.0% (scalar " + rest + ")") +
           dsp(t + "1.000", std::string(300, 'x') + load("50.0", rest)),
       nulls},
  };
  for (const auto& c : cases) {
    Planted<LogcatDspPlugin> plugin;
    ASSERT_TRUE(plugin.init());
    EXPECT_EQ(plugin.output(c.text), c.report) << c.text;
  }
}

TEST(LogcatDsp, PeriodsWithoutTelemetryKeepTheNumbersAndDatedLinesMoveTheWindow) {
  Planted<LogcatDspPlugin> plugin;
  plugin.init();
  const std::string a = "2026-11-23 14:50:01.250", b = "2026-11-23 14:50:02.500";
  const std::string rest = "10.00%, HVX 8.00%, HMX 2.00%, UDMA 1.00%";
  const std::string first =
      "dsp_util_max_prct: 20.000% | dsp_util_avg_prct: 20.000% | "
      "dsp_scalar_util_avg_prct: 10.000% | dsp_hvx_util_avg_prct: 8.000% | "
      "dsp_hmx_util_avg_prct: 2.000% | dsp_udma_util_avg_prct: 1.000% | dsp_freq: 787.00";
  struct Step {
    std::optional<std::string> text;
    std::string window;  // stamp of the next run
    std::string report;
  } steps[] = {
      {dsp(a, load("20.0", rest)), a, first},
      {dsp(b, "map relocalized, 6DoF tracking good"), b, first},
      {"", b, first},
      {std::nullopt, b, first},
      {"--------- beginning of main\n0-1-1 0:0:0.';>/tmp/p;' x\n", b, first},
      {dsp(a, load("60.0", rest)), a, "dsp_util_max_prct: 60.000% | dsp_util_avg_prct: 60.000%"},
  };
  for (const auto& s : steps) {
    const std::string report = plugin.output(s.text);
    EXPECT_EQ(report.substr(0, s.report.size()), s.report);
    plugin.output(std::nullopt);  // shows the next window without reading anything
    EXPECT_EQ(plugin.commands.back(), kDsp + "'" + s.window + "'");
  }
}

}  // namespace
}  // namespace emberline
