#include "command_line.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace emberline {
namespace {

enum Device { kGeneric, kBrantley, kChipset2 };

struct Parsed {
  std::optional<int> exit_code;
  Settings settings;
  std::string err;
};

Parsed parse(std::vector<std::string> args, Device device = kGeneric) {
  args.insert(args.begin(), "emberline");
  std::vector<const char*> argv;
  for (const auto& arg : args) argv.push_back(arg.c_str());
  Parsed parsed;
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  parsed.exit_code = parse_command_line(static_cast<int>(argv.size()), argv.data(), parsed.settings,
                                        device == kBrantley, device == kChipset2);
  testing::internal::GetCapturedStdout();
  parsed.err = testing::internal::GetCapturedStderr();
  return parsed;
}

TEST(CommandLine, AcceptedSettings) {
  struct Case {
    std::vector<std::string> args;
    Device device;
    std::function<bool(const Settings&)> holds;
  } cases[] = {
      {{},
       kGeneric,
       [](const Settings& s) {
         return s.time_s == 0 && s.sample_period_ms == 500 && s.output_period_ms == 1000 &&
                s.use_window && s.window_size == 20 && s.exp_smooth == 0.2f &&
                s.format() == OutputFormat::TEXT && !s.wants_file();
       }},
      {{"-s", "700", "-o", "700"},
       kGeneric,
       [](const Settings& s) { return s.sample_period_ms == 700; }},
      {{"--json", "--csv", "--inline"},
       kGeneric,
       [](const Settings& s) { return s.format() == OutputFormat::JSON; }},
      {{"--csv", "--inline"},
       kGeneric,
       [](const Settings& s) { return s.format() == OutputFormat::CSV; }},
      {{"--inline"},
       kGeneric,
       [](const Settings& s) { return s.format() == OutputFormat::INLINE; }},
      {{"-f", "--file", "/a/b"},
       kGeneric,
       [](const Settings& s) { return s.wants_file() && s.file == "/a/b"; }},
      {{"-w", "40"},
       kGeneric,
       [](const Settings& s) { return s.use_window && s.window_size == 40; }},
      {{"-e", "0.5", "-w", "40"},
       kGeneric,
       [](const Settings& s) { return !s.use_window && s.exp_smooth == 0.5f; }},
      // An explicit default still counts as having asked for smoothing.
      {{"-e", "0.2"}, kGeneric, [](const Settings& s) { return !s.use_window; }},
      {{"--quillon-dram-ms=20"},
       kChipset2,
       [](const Settings& s) { return s.quillon_dram_ms == 20; }},
      {{"--quillon-dram"},
       kChipset2,
       [](const Settings& s) { return s.quillon_dram && s.quillon_dram_ms == 50; }},
      {{"--brantley-rails"}, kBrantley, [](const Settings& s) { return s.brantley_rails; }},
  };
  for (const auto& c : cases) {
    auto parsed = parse(c.args, c.device);
    std::string joined;
    for (const auto& arg : c.args) joined += arg + " ";
    EXPECT_FALSE(parsed.exit_code) << joined << parsed.err;
    EXPECT_TRUE(c.holds(parsed.settings)) << joined;
    EXPECT_EQ(parsed.err, "") << joined;
  }
}

TEST(CommandLine, RefusedSettingsEndTheProgram) {
  struct Case {
    std::vector<std::string> args;
    Device device;
  } cases[] = {
      {{"-t", "36001"}, kGeneric},
      {{"-e", "1.5"}, kGeneric},
      {{"-t", "abc"}, kGeneric},
      {{"--bogus"}, kGeneric},
      {{"--quillon-dram"}, kGeneric},
      {{"--brantley-rails"}, kChipset2},
      {{"--quillon-dram-ms=0"}, kChipset2},
      // Values of options declared ahead of --ignore-error are taken before it is known.
      {{"-t", "abc", "--ignore-error"}, kGeneric},
      {{"--ignore-error", "-s", "5"}, kGeneric},
  };
  for (const auto& c : cases) {
    auto parsed = parse(c.args, c.device);
    ASSERT_TRUE(parsed.exit_code) << c.args[0];
    EXPECT_NE(*parsed.exit_code, 0) << c.args[0];
    EXPECT_NE(parsed.err, "") << c.args[0];
    EXPECT_EQ(parsed.err.find("Ignoring error."), std::string::npos) << c.args[0];
  }
}

TEST(CommandLine, IgnoredErrorsAreReportedAndLaterOptionsKeepTheirDefaults) {
  struct Case {
    std::vector<std::string> args;
    std::function<bool(const Settings&)> holds;
  } cases[] = {
      {{"--bogus", "--ignore-error", "-t", "5"}, [](const Settings& s) { return s.time_s == 5; }},
      {{"--quillon-dram", "--ignore-error", "--example"},
       [](const Settings& s) { return s.example; }},
      // Smoothing was asked for, with a value out of range: the default alpha stands.
      {{"-e", "1.5", "--ignore-error"},
       [](const Settings& s) { return !s.use_window && s.exp_smooth == 0.2f; }},
      // --no-power is declared behind --window, so it is never stored.
      {{"-w", "0", "--ignore-error", "--no-power", "-t", "3"},
       [](const Settings& s) { return !s.no_power && s.window_size == 20 && s.time_s == 3; }},
  };
  for (const auto& c : cases) {
    auto parsed = parse(c.args);
    EXPECT_FALSE(parsed.exit_code) << c.args[0];
    EXPECT_TRUE(c.holds(parsed.settings)) << c.args[0];
    ASSERT_GE(parsed.err.size(), 17u);
    EXPECT_EQ(parsed.err.substr(parsed.err.size() - 17), "\nIgnoring error.\n") << c.args[0];
  }
}

TEST(CommandLine, SampleRateAboveOutputRateEndsWithOne) {
  for (auto args : {std::vector<std::string>{"-s", "1001"},
                    std::vector<std::string>{"--bogus", "--ignore-error", "-o", "100"}}) {
    auto parsed = parse(args);
    EXPECT_EQ(parsed.exit_code, 1);
    EXPECT_NE(parsed.err.find("Sample rate must be smaller than or equal to output rate.\n"),
              std::string::npos);
  }
}

TEST(CommandLine, DramPeriodFallsBackToItsDefaultAfterAnIgnoredError) {
  for (auto args : {std::vector<std::string>{"--bogus", "--ignore-error", "--quillon-dram"},
                    std::vector<std::string>{"--quillon-dram-ms=0", "--ignore-error"}}) {
    auto parsed = parse(args, kChipset2);
    EXPECT_FALSE(parsed.exit_code) << args[0];
    EXPECT_EQ(parsed.settings.quillon_dram_ms, 50u) << args[0];
  }
}

}  // namespace
}  // namespace emberline
