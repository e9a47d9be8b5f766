// The real binary in a frozen generic headset: messages, reports, exit codes, signals, files.

#include <gtest/gtest.h>

#include <filesystem>

#include "harness.h"

namespace {

using e2e::lines;
using e2e::mask_times;
using e2e::run;

const std::string kStartStop2s =
    "Disabling charging...\nStarting 2 second trace. \nPress CTRL-C to stop...\n\n\n"
    "Enabling charging...\n";

TEST(EndToEnd, ExampleReportsAsTextAndJson) {
  struct Case {
    std::vector<std::string> extra;
    std::string out;
  } cases[] = {
      {{},
       "sequence: 1 | timestamp: 1.000 | device_timestamp: <epoch>\n"
       "[Example] num_samples: 3 | num_outputs: 1\n------\n"
       "sequence: 2 | timestamp: 2.000 | device_timestamp: <epoch>\n"
       "[Example] num_samples: 5 | num_outputs: 2\n------\n"},
      {{"--json"},
       "{\"sequence\":1,\"timestamp\":1.000,\"device_timestamp\":<epoch>,"
       "\"example\":{\"num_samples\":3,\"num_outputs\":1}}\n"
       "{\"sequence\":2,\"timestamp\":2.000,\"device_timestamp\":<epoch>,"
       "\"example\":{\"num_samples\":5,\"num_outputs\":2}}\n"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args{"--no-power", "--example", "-t", "2"};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    auto result = run(args);
    EXPECT_EQ(result.exit_code, 0);
    std::string out = e2e::round_seconds(mask_times(result.out));
    EXPECT_EQ(out, c.out);
    EXPECT_EQ(result.err, kStartStop2s);
  }
}

TEST(EndToEnd, TimingFieldsStandBehindTheTimestampsAndPluginTimesAheadOfPlugins) {
  auto result =
      run({"--no-power", "--example", "-t", "1", "-c", "--csv", "--timing", "--time-plugins"});
  ASSERT_EQ(result.exit_code, 0);
  auto out = lines(result.out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0],
            "sequence,timestamp,device_timestamp,sample_time_ms,output_time_ms,process_time_ms,"
            "drift_time_ms,wait_time_ms,timing.example,example.num_samples,example.num_outputs");
  EXPECT_TRUE(std::regex_match(
      out[1], std::regex(R"(1,\d\.\d{3},\d+\.\d{3},\d+,0,\d+,\d+,\d+,\d+\.\d,3,1)")))
      << out[1];
}

TEST(EndToEnd, SchemaIsPrintedInsteadOfARun) {
  auto result = run({"--no-power", "--example", "--schema", "--csv"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "Key                       Description\n"
            "-----                     -----\n"
            "sequence             :    Incrementing output sequence number\n"
            "timestamp            :    Time since trace start (measured in seconds)\n"
            "device_timestamp     :    Device epoch time (measured in seconds)\n"
            "example.num_samples  :    The number of times sampling occurred\n"
            "example.num_outputs  :    The number of times output occurred\n");
}

TEST(EndToEnd, SignalsEndTheRunAndGiveChargingBack) {
  for (int signal : {SIGINT, SIGTERM}) {
    e2e::Options options;
    options.signal_after_start = signal;
    auto result = run({"--no-power", "--example"}, options);
    EXPECT_EQ(result.exit_code, 0) << signal;
    EXPECT_EQ(result.err,
              "Disabling charging...\nStarting trace. \nPress CTRL-C to stop...\n\n\n"
              "Enabling charging...\n")
        << signal;
  }
}

TEST(EndToEnd, HangupSendsTheConsoleToTheLog) {
  e2e::Options options;
  options.signal_after_start = SIGHUP;
  auto result = run({"--no-power", "--example"}, options);
  EXPECT_EQ(result.exit_code, 0);
  // Debian's liblog prints each record as "TAG P MM-DD HH:MM:SS pid tid text" on stderr.
  EXPECT_TRUE(std::regex_search(
      result.err,
      std::regex(R"(\nemberline I \d\d-\d\d [0-9:]{8} +\d+ +\d+ Enabling charging\.\.\.\n)")))
      << result.err;
  EXPECT_EQ(result.err.find("\nEnabling charging...\n"), std::string::npos);
}

TEST(EndToEnd, ReportFile) {
  namespace fs = std::filesystem;
  {
    auto result = run({"--no-power", "-c", "-t", "1", "--csv", "-f", "-q"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out + result.err, "");
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator("/data/local/tmp")) {
      if (entry.path().extension() == ".csv") files.push_back(entry.path());
    }
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(std::regex_match(files[0].filename().string(),
                                 std::regex(R"(emberline-\d{4}-\d\d-\d\d-\d\d-\d\d-\d\d\.csv)")));
    auto written = lines(e2e::read_file(files[0]));
    ASSERT_EQ(written.size(), 2u);
    EXPECT_EQ(written[0], "sequence,timestamp,device_timestamp");
  }
  {
    // Each line is in the file before it reaches the console, so a reader never waits for the
    // run to end.
    std::string file_when_first_report_showed;
    e2e::Options options;
    options.watch = [&](const std::string& out, const std::string&) {
      if (file_when_first_report_showed.empty() && lines(out).size() == 2) {
        file_when_first_report_showed = e2e::read_file("/data/local/tmp/live.csv");
      }
    };
    auto result = run(
        {"--no-power", "-c", "-t", "2", "--csv", "--example", "--file", "/data/local/tmp/live.csv"},
        options);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(file_when_first_report_showed,
              lines(result.out)[0] + "\n" + lines(result.out)[1] + "\n");
    EXPECT_EQ(e2e::read_file("/data/local/tmp/live.csv"), result.out);
  }
  {
    auto result = run({"--no-power", "-c", "-t", "1", "--file", "/nonexistent/report.txt"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(lines(result.err)[0], "Failed to open output file at '/nonexistent/report.txt'");
    EXPECT_EQ(lines(result.out).size(), 2u);
  }
  {
    auto result = run({"--no-power", "--schema", "--file", "/data/local/tmp/schema.txt"});
    EXPECT_EQ(result.err, "Output will be saved to '/data/local/tmp/schema.txt'\n");
    EXPECT_EQ(e2e::read_file("/data/local/tmp/schema.txt"), "");
  }
}

TEST(EndToEnd, ExitCodes) {
  struct Case {
    std::vector<std::string> args;
    int exit_code;
    std::string err_start;
  } cases[] = {
      {{"--help"}, 0, ""},
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
