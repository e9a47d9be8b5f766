// The real binary in a frozen generic headset: reports, schema, files and exit codes.

#include <gtest/gtest.h>

#include "harness.h"

namespace {

using e2e::lines;
using e2e::run;

// A report file that cannot be opened costs the file, not the run.
TEST(EndToEnd, TimingFieldsStandBehindTheTimestampsAndPluginTimesAheadOfPlugins) {
  auto result = run({"--no-power", "--example", "-t", "1", "-c", "--csv", "--timing",
                     "--time-plugins", "--file", "/nonexistent/report.csv"});
  ASSERT_EQ(result.exit_code, 0);
  EXPECT_EQ(lines(result.err)[0], "Failed to open output file at '/nonexistent/report.csv'");
  auto out = lines(result.out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0],
            "sequence,timestamp,device_timestamp,sample_time_ms,output_time_ms,process_time_ms,"
            "drift_time_ms,wait_time_ms,timing.example,example.num_samples,example.num_outputs");
  EXPECT_TRUE(std::regex_match(
      out[1], std::regex(R"(1,\d\.\d{3},\d+\.\d{3},\d+,0,\d+,\d+,\d+,\d+\.\d,3,1)")))
      << out[1];
}

// The schema goes to the console alone, even when reports would go to a file. (Its rows are the
// golden files'.)
TEST(EndToEnd, SchemaIsPrintedInsteadOfARun) {
  auto result =
      run({"--no-power", "--example", "--schema", "--csv", "--file", "/data/local/tmp/schema.txt"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err, "Output will be saved to '/data/local/tmp/schema.txt'\n");
  EXPECT_EQ(e2e::read_file("/data/local/tmp/schema.txt"), "");
  EXPECT_TRUE(result.out.starts_with("Key ")) << result.out;
  EXPECT_NE(result.out.find("\nexample.num_outputs  :    "), std::string::npos) << result.out;

  // The default report file, by format; the schema names the window the run was given.
  for (auto [format, extension] :
       {std::pair{"--inline", "txt"}, {"--timing", "txt"}, {"--json", "json"}, {"--csv", "csv"}}) {
    result = run({"--schema", "-w", "7", "-f", format});
    EXPECT_TRUE(std::regex_match(
        result.err,
        std::regex(R"(Output will be saved to '/data/local/tmp/emberline-\d{4}(-\d\d){5}\.)" +
                   std::string(extension) + "'\n")))
        << result.err;
    EXPECT_NE(result.out.find("Power value smoothed using a rolling average window of 7 samples. "
                              "Window size can be set using '-w/--window'\n"),
              std::string::npos)
        << format;
  }
}

// The report's other sinks: a file, and with --logcat the Android log, where each report line
// (the CSV header too) is one record at priority I under its own tag, written by the main thread.
TEST(EndToEnd, ReportFileAndLog) {
  {
    auto result = run({"--no-power", "-c", "-t", "1", "--csv", "-f", "-q"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_EQ(e2e::recorded_writes(0).size(), 0u);  // charging went on
    const std::string file = e2e::only_file(".csv");
    EXPECT_TRUE(std::regex_match(
        file, std::regex(R"(/data/local/tmp/emberline-\d{4}-\d\d-\d\d-\d\d-\d\d-\d\d\.csv)")));
    auto written = lines(e2e::read_file(file));
    ASSERT_EQ(written.size(), 2u);
    EXPECT_EQ(written[0], "sequence,timestamp,device_timestamp");
  }
  {
    // Each line is in the file before it reaches the console, so a reader never waits for the
    // run to end.
    const std::string file = "/data/local/tmp/live.csv";
    std::string file_at_first_report;
    e2e::Options options;
    options.watch = [&](const std::string& out, const std::string&) {
      if (file_at_first_report.empty() && std::count(out.begin(), out.end(), '\n') >= 2) {
        file_at_first_report = e2e::read_file(file);
      }
    };
    auto result = run(
        {"--no-power", "-c", "-t", "2", "--csv", "--example", "--file", file, "--logcat"}, options);
    ASSERT_EQ(result.exit_code, 0);
    EXPECT_EQ(e2e::round_seconds(e2e::mask_times(result.out)),
              "sequence,timestamp,device_timestamp,example.num_samples,example.num_outputs\n"
              "1,1.000,<epoch>,3,1\n2,2.000,<epoch>,5,2\n");
    const auto out = lines(result.out);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(file_at_first_report, out[0] + "\n" + out[1] + "\n");
    EXPECT_EQ(e2e::read_file(file), result.out);
    const auto [console, logged] = e2e::log_records(result.err, result.pid);
    EXPECT_EQ(console, "Output will be saved to '" + file +
                           "'\nStarting 2 second trace. \nPress CTRL-C to stop...\n\n\n");
    std::vector<std::string> expected;
    for (const std::string& line : out) expected.push_back("emberline_telemetry I " + line);
    EXPECT_EQ(logged, expected);
  }
}

TEST(EndToEnd, ExitCodes) {
  struct Case {
    std::vector<std::string> args;
    int exit_code;
    std::string err_start;
  } cases[] = {
      {{"--bogus"}, 109, "The following argument was not expected: --bogus\n"},
      {{"-t", "36001"}, 105, "--time: Value 36001 not in range 0 to 36000\n"},
  };
  for (const auto& c : cases) {
    auto result = run(c.args);
    EXPECT_EQ(result.exit_code, c.exit_code) << c.args[0];
    EXPECT_EQ(result.err.substr(0, c.err_start.size()), c.err_start) << c.args[0];
  }
}

}  // namespace
