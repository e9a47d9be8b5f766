#include "command_line.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace emberline {
namespace {

enum Device { kGeneric, kBrantley, kChipset2 };

using S = const Settings&;
using F = OutputFormat;
constexpr int kRuns = -1;
const std::string kIgnored = "\nIgnoring error.\n";
const std::string kSeeHelp = "Run with --help for more information.\n";
const std::string kRates = "Sample rate must be smaller than or equal to output rate.\n";

// The arguments, what they set, the exit code (kRuns: the program goes on), how stderr ends.
TEST(CommandLine, SettingsExitCodesAndIgnoredErrors) {
  struct Case {
    std::vector<std::string> args;
    std::function<bool(S)> holds;
    int exit = kRuns;
    std::string err_end = "";
    Device device = kGeneric;
  } cases[] = {
      // clang-format off
      {{}, [](S s) {
         return s.time_s == 0 && s.sample_period_ms == 500 && s.output_period_ms == 1000 &&
                s.use_window && s.window_size == 20 && s.exp_smooth == 0.2f &&
                s.format() == F::TEXT && !s.wants_file(); }},
      {{"-s", "700", "-o", "700"}, [](S s) { return s.sample_period_ms == 700; }},
      {{"--json", "--csv", "--inline"}, [](S s) { return s.format() == F::JSON; }},
      {{"--csv", "--inline"}, [](S s) { return s.format() == F::CSV; }},
      {{"--inline"}, [](S s) { return s.format() == F::INLINE; }},
      {{"-f", "--file", "/a/b"}, [](S s) { return s.wants_file() && s.file == "/a/b"; }},
      {{"-w", "40"}, [](S s) { return s.use_window && s.window_size == 40; }},
      {{"-e", "0.5", "-w", "40"}, [](S s) { return !s.use_window && s.exp_smooth == 0.5f; }},
      // An explicit default still counts as having asked for smoothing.
      {{"-e", "0.2"}, [](S s) { return !s.use_window; }},
      {{"--quillon-dram-ms=20"}, [](S s) { return s.quillon_dram_ms == 20; }, kRuns, "", kChipset2},
      {{"--quillon-dram"}, [](S s) { return s.quillon_dram && s.quillon_dram_ms == 50; }, kRuns, "",
       kChipset2},
      {{"--brantley-rails"}, [](S s) { return s.brantley_rails; }, kRuns, "", kBrantley},
      {{"-t", "36001"}, nullptr, 105, kSeeHelp},
      {{"-e", "1.5"}, nullptr, 105, kSeeHelp},
      {{"-t", "abc"}, nullptr, 105, kSeeHelp},
      {{"--bogus"}, nullptr, 109, kSeeHelp},
      {{"--quillon-dram"}, nullptr, 109, kSeeHelp},
      {{"--brantley-rails"}, nullptr, 109, kSeeHelp, kChipset2},
      {{"--quillon-dram-ms=0"}, nullptr, 105, kSeeHelp, kChipset2},
      // Values of options declared ahead of --ignore-error are taken before it is known.
      {{"-t", "abc", "--ignore-error"}, nullptr, 105, kSeeHelp},
      {{"--ignore-error", "-s", "5"}, nullptr, 105, kSeeHelp},
      {{"--bogus", "--ignore-error", "-t", "5"}, [](S s) { return s.time_s == 5; }, kRuns,
       kIgnored},
      {{"--quillon-dram", "--ignore-error", "--example"}, [](S s) { return s.example; }, kRuns,
       kIgnored},
      // Smoothing was asked for, with a value out of range: the default alpha stands.
      {{"-e", "1.5", "--ignore-error"}, [](S s) { return !s.use_window && s.exp_smooth == 0.2f; },
       kRuns, kIgnored},
      // --no-power is declared behind --window, so it is never stored.
      {{"-w", "0", "--ignore-error", "--no-power", "-t", "3"},
       [](S s) { return !s.no_power && s.window_size == 20 && s.time_s == 3; }, kRuns, kIgnored},
      // The DRAM period falls back to its default after an ignored error.
      {{"--bogus", "--ignore-error", "--quillon-dram"}, [](S s) { return s.quillon_dram_ms == 50; },
       kRuns, kIgnored, kChipset2},
      {{"--quillon-dram-ms=0", "--ignore-error"}, [](S s) { return s.quillon_dram_ms == 50; },
       kRuns, kIgnored, kChipset2},
      {{"-s", "1001"}, nullptr, 1, kRates},
      {{"--bogus", "--ignore-error", "-o", "100"}, nullptr, 1, kIgnored + kRates},
      // clang-format on
  };
  for (const auto& c : cases) {
    std::vector<const char*> argv{"emberline"};
    for (const auto& arg : c.args) argv.push_back(arg.c_str());
    std::string joined;
    for (const auto& arg : c.args) joined += arg + " ";
    SCOPED_TRACE(joined);
    Settings settings;
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    const auto exit = parse_command_line(static_cast<int>(argv.size()), argv.data(), settings,
                                         c.device == kBrantley, c.device == kChipset2);
    testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(exit.value_or(kRuns), c.exit) << err;
    ASSERT_GE(err.size(), c.err_end.size()) << err;
    EXPECT_EQ(err.substr(err.size() - c.err_end.size()), c.err_end);
    EXPECT_EQ(err.empty(), c.err_end.empty()) << err;
    EXPECT_EQ(err.find("Ignoring") == err.npos, c.err_end.find("Ignoring") == err.npos);
    if (c.holds) {
      EXPECT_TRUE(c.holds(settings));
    }
  }
}

}  // namespace
}  // namespace emberline
