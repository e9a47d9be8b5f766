// --ravelin, --dsp and --tail in a frozen headset whose log holds crafted entries.

#include <gtest/gtest.h>

#include <filesystem>

#include "harness.h"

namespace {

const std::string kBuffer = "/.emberline-sim/log/main";
// Later than any run's start, so that every window holds these entries.
const std::string kSoon = "2099-05-01 10:00:00.";

std::string entry(const std::string& stamp, const std::string& head, const std::string& message) {
  return stamp + " " + head + ": " + message + "\n";
}
std::string ravelin(const std::string& stamp, const std::string& message) {
  return entry(stamp, "I/Ravelin ( 2304)", message);
}
std::string telemetry(const std::string& stamp, const std::string& freq, const std::string& loads) {
  return entry(stamp, "I/Tracking( 1187)",
               "cDSP HexagonTelemetry Freq: " + freq + " MHz, Load: " + loads);
}
const std::string kFirst = "20.5% (scalar 10.0%, HVX 8.0%, HMX 2.0%, UDMA 1.0%)";
const std::string kSecond = "30.5% (scalar 20.0%, HVX 4.0%, HMX 3.0%, UDMA 2.0%)";

// The report lines of a CSV run without the root's three columns.
std::vector<std::string> plugin_columns(const std::string& out) {
  std::vector<std::string> rows;
  for (const std::string& line : e2e::lines(out)) {
    rows.push_back(line.substr(line.find(',', line.find(',', line.find(',') + 1) + 1) + 1));
  }
  return rows;
}

TEST(Logcat, FieldsAverageOverEachWindowWhichStartsAtTheLastStampInclusive) {
  e2e::write_file("/data/local/tmp/tailed", "7 \n");
  // Entries longer than the plugins' buffers: their rest arrives as a line of its own, here one
  // that strptime reads as a date and whose "stamp" would run a command.
  const std::string ravelin_head = kSoon + "260 I/Ravelin ( 2304): ";
  const std::string tracking_head = kSoon + "240 I/Tracking( 1187): ";
  e2e::write_file(
      kBuffer, ravelin("2000-01-01 00:00:00.000", "FPS=1,Prd=1") +
                   ravelin(kSoon + "100", "FPS=60/72,Prd=41ms,Tear=0,Stale=2,ICFLp95=11.25") +
                   telemetry(kSoon + "100", "787", kFirst) +
                   entry(kSoon + "150", "D/Ravelin ( 2304)", "FPS=1") +
                   entry(kSoon + "150", "I/VrCompositor( 1021)", "FPS=1") +
                   ravelin(kSoon + "200", "FPS=71/72,Prd=43ms,Tear=1,Stale=0") +
                   telemetry(kSoon + "200", "1036", kSecond) + tracking_head +
                   std::string(255 - tracking_head.size(), 'x') +
                   "0-1-1 0:0:0.'`>/tmp/q`' Freq: 1\n" +
                   entry(kSoon + "250", "I/Tracking( 1187)", "map relocalized") + ravelin_head +
                   std::string(499 - ravelin_head.size(), 'x') + "0-1-1 0:0:0.';>/tmp/p;' FPS=1\n" +
                   ravelin(kSoon + "300", "FPS=72/72,Prd=38ms,Tear=0,Stale=1"));
  auto result = e2e::run({"-c", "--no-power", "--tail", "/data/local/tmp/tailed", "--dsp",
                          "--ravelin", "-t", "2", "--csv"});
  ASSERT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err.find("logcat"), std::string::npos) << result.err;
  EXPECT_FALSE(std::filesystem::exists("/tmp/p") || std::filesystem::exists("/tmp/q"));
  const auto rows = plugin_columns(result.out);
  ASSERT_EQ(rows.size(), 3u);  // the header (the golden schema's keys) and two reports
  const std::string dsp = "0.30500,0.25500,0.15000,0.06000,0.02500,0.01500,911.50,7";
  EXPECT_EQ(rows[1], "67.67,40.67,1.00,0.33,11.25," + dsp);
  // The second window holds the last entry of each tag alone; that of Tracking has no telemetry.
  EXPECT_EQ(rows[2], "72.00,38.00,1.00,0.00,null," + dsp);
}

// Zero until the first output at one second, then that window's numbers (both entries) at every
// sample until the second output, then the second's (the last entry alone), which a last sample
// may show.
TEST(Logcat, DspCountersRepeatTheLastOutputAtTheSampleRate) {
  e2e::write_file(
      kBuffer, telemetry(kSoon + "100", "787", kFirst) + telemetry(kSoon + "200", "1036", kSecond));
  auto result = e2e::run({"-c", "--no-power", "--dsp", "-p", "-t", "2", "-s", "100"});
  ASSERT_EQ(result.exit_code, 0);
  auto counters = [](std::vector<double> values) {
    const char* names[] = {"global DSP Util", "Scalar Util", "HVX Util",
                           "HMX Util",        "UDMA Util",   "DSP Freq"};
    std::vector<std::string> sample;
    for (double value : values) sample.push_back(names[sample.size()] + (" " + e2e::digits(value)));
    return sample;
  };
  auto mean = [](float a, float b) { return (a / 100.0f + b / 100.0f) / 2; };
  const std::vector<std::vector<std::string>> windows = {
      counters({0, 0, 0, 0, 0, 0}),
      counters({mean(20.5f, 30.5f), mean(10.0f, 20.0f), mean(8.0f, 4.0f), mean(2.0f, 3.0f),
                mean(1.0f, 2.0f), 911.5}),
      counters(
          {30.5f / 100.0f, 20.0f / 100.0f, 4.0f / 100.0f, 3.0f / 100.0f, 2.0f / 100.0f, 1036})};
  const std::vector<std::string> events = e2e::counter_events(e2e::only_file(".perfetto-trace"));
  ASSERT_EQ(events.size() % 6, 0u);
  std::vector<int> samples(3);
  std::size_t window = 0;
  for (std::size_t at = 0; at < events.size(); at += 6) {
    const std::vector<std::string> sample(events.begin() + at, events.begin() + at + 6);
    while (window < 2 && sample != windows[window]) ++window;
    EXPECT_EQ(sample, windows[window]) << at / 6;
    ++samples[window];
  }
  EXPECT_GE(samples[0], 10);
  EXPECT_GE(samples[1], 9);
}

}  // namespace
