#include "command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "emberline.h"

namespace emberline {

OutputFormat Settings::format() const {
  if (json) return OutputFormat::JSON;
  if (csv) return OutputFormat::CSV;
  if (inline_text) return OutputFormat::INLINE;
  return OutputFormat::TEXT;
}

std::optional<int> parse_command_line(int argc, const char* const* argv, Settings& s, bool brantley,
                                      bool chipset2) {
  const Settings defaults;
  CLI::App app("A tool to measure device power and other useful things.", "Emberline");

  const std::string general = "General Options";
  app.add_flag("-c,--continue-charging", s.continue_charging,
               "Continue charging while the measurements are being taken")
      ->group(general)
      ->default_val(false);
  app.add_option("-t,--time", s.time_s,
                 "Automatically exit after the specified number of seconds, 0 means no limit")
      ->group(general)
      ->check(CLI::Range(0, 36000))
      ->default_val(defaults.time_s);
  app.add_option("-s,--sample-rate", s.sample_period_ms,
                 "Set the sample rate (in ms). Lower values may or may not improve accuracy of "
                 "some readings, such as power. Defaults to " +
                     std::to_string(defaults.sample_period_ms))
      ->group(general)
      ->check(CLI::Range(10, 100000000))
      ->default_val(defaults.sample_period_ms);
  app.add_option(
         "-o,--output-rate", s.output_period_ms,
         "Set the output rate (in ms). Defaults to " + std::to_string(defaults.output_period_ms))
      ->group(general)
      ->check(CLI::Range(10, 100000000))
      ->default_val(defaults.output_period_ms);
  app.add_flag("-p,--perfetto", s.perfetto, "Redirect output to perfetto trace")
      ->group(general)
      ->default_val(false);
  app.add_flag("-f", s.file_flag,
               std::string("Redirect output to a file saved in '") + kDefaultOutputDirectory + "'")
      ->group(general)
      ->default_val(false);
  app.add_flag("--timing", s.timing, "Include timing loop fields in output")
      ->group(general)
      ->default_val(false);
  app.add_flag("--time-plugins", s.time_plugins, "Include plugin timing fields in output")
      ->group(general)
      ->default_val(false);
  app.add_option("--file", s.file, "Redirect output to the file given")->group(general);
  app.add_flag("--ignore-error", s.ignore_error, "Ignore nonexistent options and run without them")
      ->group(general)
      ->default_val(false);
  app.add_flag("-q,--quiet", s.quiet, "Don't write any output to the console")
      ->group(general)
      ->default_val(false);

  const std::string power = "Power Options";
  auto* exp_smooth =
      app.add_option("-e,--exp-smooth", s.exp_smooth,
                     "Calculate power using exponential smoothing.\nN specifies alpha. Increasing "
                     "alpha will decrease output lag (giving recent readings more weight), but "
                     "increase volatility. Decreasing will smooth output, but will increase output "
                     "lag. Alpha defaults to " +
                         std::to_string(defaults.exp_smooth))
          ->group(power)
          ->check(CLI::Range(0.0, 1.0))
          ->default_val(defaults.exp_smooth);
  app.add_option("-w,--window", s.window_size,
                 "Calculate power using a rolling average (default).\nN specifies number of "
                 "samples in rolling average window. Increasing will smooth output, but cause the "
                 "output to lag behind the true value. Decreasing will make output more volatile, "
                 "with less output lag. Window size defaults to " +
                     std::to_string(defaults.window_size))
      ->group(power)
      ->check(CLI::Range(1, 1000))
      ->default_val(defaults.window_size);
  app.add_flag("--no-power", s.no_power, "Do not include power statistics")
      ->group(power)
      ->default_val(false);

  const std::string format = "Format Options";
  app.add_flag("-j,--json", s.json, "Output data in JSON format")
      ->group(format)
      ->default_val(false);
  app.add_flag("--csv", s.csv, "Output data in CSV format")->group(format)->default_val(false);
  app.add_flag("--inline", s.inline_text, "Output data in an harder-to-read, inline text format")
      ->group(format)
      ->default_val(false);
  app.add_flag("--schema", s.schema,
               "Print a message detailing the format of the currently configured output schema.")
      ->group(format)
      ->default_val(false);

  const std::string output = "Output Options";
  auto flag = [&](const std::string& name, bool& target, const std::string& help) {
    app.add_flag(name, target, help)->group(output)->default_val(false);
  };
  flag("--stats", s.stats, "Include CPU, GPU, Battery and Screen info");
  flag("--cycle", s.cycle, "Include Cycle based CPU utilization");
  flag("--credits", s.credits, "Include per-process CPU credits");
  flag("--charge-data", s.charge_data, "Include charging specific data");
  flag("--logcat", s.logcat, "Log messages to Logcat (info)");
  flag("--ravelin", s.ravelin, "Include Ravelin info (FPS, Stale Frames)");
  flag("--thermals", s.thermals,
       "Include fan speed and temperature readings from various device sensors");
  flag("--dsp", s.dsp, "Include DSP utilization info");
  flag("--dsp-trace", s.dsp_trace, "Emit DSP tracing info to Perfetto");
  app.add_option("--tail", s.tail, "List of files to tail")->group(output);
  flag("--all", s.all, "Gimme everything!");
  if (brantley) {
    flag("--brantley-rails", s.brantley_rails,
         "Include instrumented per rail power readings for brantley");
  }
  if (chipset2) {
    flag("--quillon-rails", s.quillon_rails,
         "Include instrumented per rail power readings for quillon");
    flag("--quillon-dram", s.quillon_dram, "Include instrumented dram readings for quillon");
    // A summing flag: the value needs an equals sign, and the forced callback supplies the
    // default when the flag is absent.
    app.add_flag("--quillon-dram-ms", s.quillon_dram_ms,
                 "The DRAM sampling rate for quillon, must be >= 1ms, defaults to " +
                     std::to_string(defaults.quillon_dram_ms) + "ms")
        ->group(output)
        ->check(CLI::Range(1, 10000))
        ->default_val(defaults.quillon_dram_ms)
        ->force_callback();
  }
  flag("--example", s.example, "Include example plugin with counts");

  app.get_formatter()->column_width(40);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (!s.ignore_error) return app.exit(error);
    std::cerr << error.what() << std::endl;
    std::cerr << "Ignoring error." << std::endl;
    // The forced callback that supplies the default never ran, and the library has cleared the
    // target: a period of 0 would ask the monitors for nothing.
    if (chipset2 && s.quillon_dram_ms == 0) s.quillon_dram_ms = defaults.quillon_dram_ms;
  }

  if (s.sample_period_ms > s.output_period_ms) {
    std::cerr << "Sample rate must be smaller than or equal to output rate." << std::endl;
    return 1;
  }
  s.use_window = exp_smooth->results().empty();
  return std::nullopt;
}

void register_plugins(Emberline& engine, const Settings& s) {
  if (!s.no_power && s.continue_charging) {
    engine.register_power_plugin(PowerPath::USB, s.use_window, s.window_size, s.exp_smooth);
  }
  if (!s.no_power) {
    engine.register_power_plugin(PowerPath::BATTERY, s.use_window, s.window_size, s.exp_smooth);
  }
  if (s.stats || s.all) engine.register_stats_plugin(s.cycle);
  if (s.credits || s.all) engine.register_credits_plugin();
  if (is_chipset2_device && (s.charge_data || s.all)) engine.register_charge_plugin();
  if (s.ravelin || s.all) engine.register_ravelin_plugin();
  if (s.thermals || s.all) engine.register_thermals_plugin();
  if (s.dsp || s.all) engine.register_dsp_plugin();
  if (s.dsp_trace || s.all) engine.register_dsp_trace_plugin();
  if (!s.tail.empty()) engine.register_tail_plugin(s.tail);
  if (is_brantley && (s.brantley_rails || s.all)) {
    engine.register_brantley_rails_plugin();
  }
  if (is_chipset2_device && (s.quillon_rails || s.all)) {
    engine.register_quillon_rails_plugin();
  }
  if (is_chipset2_device && (s.quillon_dram || s.all)) {
    engine.register_quillon_dram_bw_plugin(s.quillon_dram_ms);
  }
  if (s.example || s.all) engine.register_example_plugin();
}

}  // namespace emberline
