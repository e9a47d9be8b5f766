// --ravelin, --dsp and --tail in a frozen headset whose log holds crafted entries.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "harness.h"
#include "unit/trace_fixture.h"

namespace {

const std::string kBuffer = "/.emberline-sim/log/main";
// Later than any run's start, so that every window holds these entries.
const std::string kSoon = "2099-05-01 10:00:00.";
const std::string kPast = "2000-01-01 00:00:00.000";

std::string entry(const std::string& stamp, const std::string& head, const std::string& message) {
  return stamp + " " + head + ": " + message + "\n";
}
std::string ravelin(const std::string& stamp, const std::string& message) {
  return entry(stamp, "I/Ravelin ( 2304)", message);
}
std::string tracking(const std::string& stamp, const std::string& message) {
  return entry(stamp, "I/Tracking( 1187)", "cDSP " + message);
}
std::string telemetry(const std::string& stamp, const std::string& freq, const std::string& loads) {
  return tracking(stamp, "HexagonTelemetry Freq: " + freq + " MHz, Load: " + loads);
}

// The report lines of a CSV run without the root's columns.
std::vector<std::string> plugin_columns(const std::string& out) {
  std::vector<std::string> rows;
  for (const std::string& line : e2e::lines(out)) {
    std::size_t at = 0;
    for (int i = 0; i < 3; ++i) at = line.find(',', at) + 1;
    rows.push_back(line.substr(at));
  }
  return rows;
}

TEST(Logcat, FieldsAverageOverEachWindowWhichStartsAtTheLastStampInclusive) {
  e2e::write_file(
      kBuffer,
      ravelin(kPast, "FPS=1,Prd=1") + telemetry(kPast, "1", "99.0% 99.0% 99.0% 99.0% 99.0%") +
          ravelin(kSoon + "100", "FPS=60/72,Prd=41ms,Tear=0,Stale=2,ICFLp95=11.25") +
          telemetry(kSoon + "100", "787", "20.5% (scalar 10.0%, HVX 8.0%, HMX 2.0%, UDMA 1.0%)") +
          entry(kSoon + "150", "D/Ravelin ( 2304)", "FPS=1") +
          entry(kSoon + "150", "I/VrCompositor( 1021)", "FPS=1") +
          ravelin(kSoon + "200", "FPS=71/72,Prd=43ms,Tear=1,Stale=0") +
          telemetry(kSoon + "200", "1036", "30.5% (scalar 20.0%, HVX 4.0%, HMX 3.0%, UDMA 2.0%)") +
          tracking(kSoon + "250", "map relocalized, 6DoF tracking good") +
          ravelin(kSoon + "300", "FPS=72/72,Prd=38ms,Tear=0,Stale=1"));
  auto result = e2e::run({"--no-power", "--ravelin", "--dsp", "-t", "2", "--csv"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  const auto rows = plugin_columns(result.out);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0],
            "ravelin.fps,ravelin.prd,ravelin.stale_frames,ravelin.tears,ravelin.cfl,"
            "dsp.dsp_util_max_prct,dsp.dsp_util_avg_prct,dsp.dsp_scalar_util_avg_prct,"
            "dsp.dsp_hvx_util_avg_prct,dsp.dsp_hmx_util_avg_prct,dsp.dsp_udma_util_avg_prct,"
            "dsp.dsp_freq");
  const std::string dsp = "0.30500,0.25500,0.15000,0.06000,0.02500,0.01500,911.50";
  EXPECT_EQ(rows[1], "67.67,40.67,1.00,0.33,11.25," + dsp);
  // Only the last entry of each tag is in the second window, and it carries no telemetry.
  EXPECT_EQ(rows[2], "72.00,38.00,1.00,0.00,null," + dsp);
}

TEST(Logcat, LogTextNeverReachesTheShellCommand) {
  std::filesystem::remove("/tmp/p");
  std::filesystem::remove("/tmp/q");
  // Entries longer than the plugins' buffers: their rest arrives as a line of its own, here one
  // that strptime reads as a date and whose "stamp" would run a command.
  const std::string ravelin_head = kSoon + "200 I/Ravelin ( 2304): ";
  const std::string tracking_head = kSoon + "200 I/Tracking( 1187): ";
  e2e::write_file(kBuffer, ravelin(kSoon + "100", "FPS=60") + ravelin_head +
                               std::string(499 - ravelin_head.size(), 'x') +
                               "0-1-1 0:0:0.';>/tmp/p;' FPS=1\n" +
                               telemetry(kSoon + "100", "787", "20.0% 10.0% 8.0% 2.0% 1.0%") +
                               tracking_head + std::string(255 - tracking_head.size(), 'x') +
                               "0-1-1 0:0:0.'`>/tmp/q`' HexagonTelemetry\n");
  auto result = e2e::run({"--no-power", "--ravelin", "--dsp", "-t", "2", "--csv"});
  ASSERT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err.find("logcat"), std::string::npos) << result.err;
  EXPECT_FALSE(std::filesystem::exists("/tmp/p"));
  EXPECT_FALSE(std::filesystem::exists("/tmp/q"));
  const auto rows = plugin_columns(result.out);
  ASSERT_EQ(rows.size(), 3u);
  const std::string dsp = "0.20000,0.20000,0.10000,0.08000,0.02000,0.01000,787.00";
  EXPECT_EQ(rows[1], "60.00,null,null,null,null," + dsp);
  EXPECT_EQ(rows[2], "null,null,null,null,null," + dsp);
}

TEST(Logcat, DspCountersRepeatTheLastOutputAtTheSampleRate) {
  for (const auto& entry : std::filesystem::directory_iterator("/data/local/tmp")) {
    std::filesystem::remove(entry.path());
  }
  e2e::write_file(
      kBuffer,
      telemetry(kSoon + "100", "787", "20.5% (scalar 10.0%, HVX 8.0%, HMX 2.0%, UDMA 1.0%)") +
          telemetry(kSoon + "200", "1036", "30.5% (scalar 20.0%, HVX 4.0%, HMX 3.0%, UDMA 2.0%)"));
  auto result = e2e::run({"--no-power", "--dsp", "-p", "-t", "2", "-s", "100"});
  ASSERT_EQ(result.exit_code, 0);
  std::string path;
  for (const auto& entry : std::filesystem::directory_iterator("/data/local/tmp")) {
    path = entry.path();
  }

  using namespace trace_test;
  auto packets = read_trace(path);
  std::map<std::uint64_t, std::string> names;
  for (const Message& track : check_trace(packets)) {
    if (!track.message(kProcess)) names[*track.varint(kUuid)] = track.text(kName).value_or("");
  }
  std::vector<std::string> order;
  std::map<std::string, std::vector<double>> values;
  for (const Message& packet : packets) {
    auto event = packet.message(kTrackEvent);
    if (!event) continue;
    const std::string& name = names[*event->varint(kTrackUuid)];
    if (order.size() < 6) order.push_back(name);
    values[name].push_back(event->fixed_double(kDoubleValue).value_or(-1));
  }
  EXPECT_EQ(order, (std::vector<std::string>{"global DSP Util", "Scalar Util", "HVX Util",
                                             "HMX Util", "UDMA Util", "DSP Freq"}));
  auto mean = [](float a, float b) { return static_cast<double>((a / 100.0f + b / 100.0f) / 2); };
  auto alone = [](float a) { return static_cast<double>(a / 100.0f); };
  // Per track: the numbers of the first window (both entries), then of the second (the last
  // entry alone, being at the window's very start).
  const std::map<std::string, std::pair<double, double>> expected{
      {"global DSP Util", {mean(20.5f, 30.5f), alone(30.5f)}},
      {"Scalar Util", {mean(10.0f, 20.0f), alone(20.0f)}},
      {"HVX Util", {mean(8.0f, 4.0f), alone(4.0f)}},
      {"HMX Util", {mean(2.0f, 3.0f), alone(3.0f)}},
      {"UDMA Util", {mean(1.0f, 2.0f), alone(2.0f)}},
      {"DSP Freq", {911.5, 1036.0}}};
  ASSERT_EQ(values.size(), expected.size());
  for (const auto& [name, windows] : expected) {
    // Zero until the first output at one second, then its numbers once per sample until the
    // second output; a sample may follow that before the run ends.
    const std::vector<double>& seen = values[name];
    const auto zeros = std::count(seen.begin(), seen.end(), 0.0);
    const auto first = std::count(seen.begin(), seen.end(), windows.first);
    EXPECT_GE(zeros, 10) << name;
    EXPECT_GE(first, 9) << name;
    std::vector<double> want(zeros, 0.0);
    want.insert(want.end(), first, windows.first);
    want.insert(want.end(), seen.size() - want.size(), windows.second);
    EXPECT_EQ(seen, want) << name;
  }
}

TEST(Tail, FilesStandBehindTheLogPluginsWithTheirContent) {
  e2e::write_file("/data/local/tmp/two_lines", "first\nsecond \n\n");
  e2e::write_file("/data/local/tmp/number", "7\n");
  e2e::write_file(kBuffer, "");
  auto result = e2e::run({"--no-power", "--example", "--tail", "/data/local/tmp/two_lines",
                          "/data/local/tmp/number", "--dsp", "--ravelin", "-t", "1"});
  ASSERT_EQ(result.exit_code, 0);
  EXPECT_EQ(e2e::lines(result.err)[0], "Adding file: /data/local/tmp/two_lines");
  EXPECT_EQ(e2e::lines(result.err)[1], "Adding file: /data/local/tmp/number");
  const auto out = e2e::lines(result.out);
  ASSERT_EQ(out.size(), 7u);
  EXPECT_EQ(out[1].substr(0, 10), "[Ravelin] ");
  EXPECT_EQ(out[2].substr(0, 6), "[DSP] ");
  EXPECT_EQ(out[3], "[Files] /data/local/tmp/two_lines: first");
  EXPECT_EQ(out[4], "second | /data/local/tmp/number: 7");
  EXPECT_EQ(out[5].substr(0, 10), "[Example] ");
}

}  // namespace
